// The library's own streams take several values in one step, documents borrow labels, and their
// text is written by code of the library. All of it must do what the long way does.
#include "libQuorCore/CList.h"
#include "libQuorCore/CSerializeBuffer.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/DataTrees.h"
#include "support/RandomTree.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// Streams that change nothing, but are of a type of their own: every value takes the long way.
class CLongStream : public CSerialize
{
public:
    using CSerialize::CSerialize;
};
class CLongBuffer : public CSerializeBuffer
{
public:
    using CSerializeBuffer::CSerializeBuffer;
};

template <class... Types>
struct types_t {
};

/// Appends the value of a node of one of the types.
template <class... Types>
void PortrayValue(CObjectData& node, std::string& szPortrait, types_t<Types...>)
{
    const auto append = [&](auto* pNode) {
        if (pNode != nullptr) {
            szPortrait += '=' + std::to_string(pNode->iGetVal());
        }
    };
    (append(dynamic_cast<Types*>(&node)), ...);
}

/// All that can be seen of a tree.
void Portray(CObjectData& node, std::string& szPortrait)
{
    szPortrait += node.szGetLabel() + ':';
    for (const bool bFlag :
         {node.bIsReadOnly(), node.bIsNull(), node.bIsAttributeNone(), node.bIsAttributeCanDelete(),
          node.bIsAttributeDynamic(), node.bIsAttributeOptional(), node.bIsAttributeMasked(),
          node.bGetIsModified()}) {
        szPortrait += bFlag ? '1' : '0';
    }
    PortrayValue(node, szPortrait,
                 types_t<CNumber<bool>, CNumber<short>, CNumber<unsigned short>, CNumber<int>,
                         CNumber<unsigned int>>{});
    if (const auto* const pText = dynamic_cast<CString*>(&node)) {
        szPortrait += "=\"" + pText->szGetVal() + '"';
    }
    if (const auto* const pTime = dynamic_cast<CDateTime*>(&node)) {
        szPortrait += '=' + std::to_string(pTime->tmGetVal());
    }
    if (auto* const pRecord = dynamic_cast<CRecord*>(&node)) {
        szPortrait += '{';
        for (int i = 0; pRecord->pGetAt(i) != nullptr; ++i) {
            Portray(*pRecord->pGetAt(i), szPortrait);
        }
        szPortrait += '}';
    }
    szPortrait += ' ';
}

/// Sets flags of a tree at random; not the dynamic one, with which a time is the clock's.
void Disturb(CObjectData& node, Random& random)
{
    if (iBelow(random, 3) == 0) {
        const auto iBits = random();
        node.SetReadOnly((iBits & 1U) != 0);
        node.SetNull((iBits & 2U) != 0);
        node.SetAttributeNone((iBits & 12U) == 0);
        node.SetAttributeCanDelete((iBits & 16U) != 0);
        node.SetAttributeOptional((iBits & 32U) != 0);
        node.SetAttributeMasked((iBits & 64U) != 0);
        node.SetIsModified((iBits & 128U) != 0);
    }
    if (auto* const pRecord = dynamic_cast<CRecord*>(&node)) {
        for (int i = 0; pRecord->pGetAt(i) != nullptr; ++i) {
            Disturb(*pRecord->pGetAt(i), random);
        }
    }
}

/// A random tree with random flags.
class CDisturbedTree : public CRandomTree
{
public:
    CDisturbedTree(unsigned iShape, unsigned iValues) : CRandomTree(iShape, iValues)
    {
        Random random(iValues);
        Disturb(m_Root, random);
    }
};

/// What a walk came to.
struct outcome_t {
    long lRet = 0;
    int iPos = 0;
    ustring bytes;
    std::string szPortrait;
    std::vector<std::string> lines;

    bool operator==(const outcome_t& other) const
    {
        return lRet == other.lRet && iPos == other.iPos && bytes == other.bytes &&
               szPortrait == other.szPortrait && lines == other.lines;
    }
};

std::ostream& operator<<(std::ostream& out, const outcome_t& outcome)
{
    out << outcome.lRet << " at " << outcome.iPos << ", " << outcome.bytes.size() << " bytes "
        << ::testing::PrintToString(outcome.bytes) << '\n'
        << outcome.szPortrait;
    for (const std::string& szLine : outcome.lines) {
        out << '\n' << szLine;
    }
    return out;
}

/// What a walk is to be.
struct walk_t {
    bool bSave = false;
    bool bCheck = false;
    bool bReset = false;
    bool bLog = false; ///< Lines are collected.
    bool bOnlyPublic = false;
    long lStart = 0;
};

template <class Stream>
outcome_t Walk(CRecord& tree, Stream& stream, const walk_t& walk)
{
    outcome_t outcome;
    stream.iSetPos(walk.lStart);
    if (walk.bLog) {
        CSyslogReceiver::Get().Clear();
    }
    outcome.lRet = walk.bCheck ? tree.iCheckStatus(stream, walk.bReset) : tree.iSerialize(stream);
    outcome.iPos = stream.iGetPos();
    if (walk.bLog) {
        for (const CSyslogReceiver::Record& record : CSyslogReceiver::Get().Records()) {
            outcome.lines.push_back(std::to_string(record.iLevel) + record.szText);
        }
    }
    Portray(tree, outcome.szPortrait);
    return outcome;
}

/// Through a byte string that has @p bytes at first.
template <class Stream>
outcome_t ThroughString(CRecord& tree, ustring bytes, const walk_t& walk)
{
    Stream stream(&bytes, walk.bSave, walk.bLog, walk.bOnlyPublic);
    outcome_t outcome = Walk(tree, stream, walk);
    outcome.bytes = bytes;
    return outcome;
}

/// Through a buffer that has @p bytes at first.
template <class Stream>
outcome_t ThroughBuffer(CRecord& tree, ustring bytes, const walk_t& walk)
{
    Stream stream(bytes.data(), static_cast<long>(bytes.size()), walk.bSave, walk.bLog,
                  walk.bOnlyPublic ? 1 : 0);
    outcome_t outcome = Walk(tree, stream, walk);
    outcome.bytes = bytes;
    return outcome;
}

/// Walks equal trees both ways through both streams.
void ExpectEqualWays(unsigned iSeed, const ustring& bytes, const walk_t& walk)
{
    CDisturbedTree first(iSeed % 50, iSeed);
    CDisturbedTree second(iSeed % 50, iSeed);
    ASSERT_EQ(ThroughString<CLongStream>(first.m_Root, bytes, walk),
              ThroughString<CSerialize>(second.m_Root, bytes, walk))
        << iSeed << ": " << bytes.size() << " bytes from " << walk.lStart;
    CDisturbedTree third(iSeed % 50, iSeed);
    CDisturbedTree fourth(iSeed % 50, iSeed);
    ASSERT_EQ(ThroughBuffer<CLongBuffer>(third.m_Root, bytes, walk),
              ThroughBuffer<CSerializeBuffer>(fourth.m_Root, bytes, walk))
        << iSeed << ": " << bytes.size() << " bytes from " << walk.lStart;
}

/// The bytes of a tree of the same shape with other values and flags.
ustring OtherBytes(unsigned iSeed, bool bOnlyPublic)
{
    CDisturbedTree other(iSeed % 50, iSeed + 1000);
    return Encoded(other.m_Root, bOnlyPublic);
}

/// The same with some bytes changed, at one time few, at another many.
ustring DamagedBytes(unsigned iSeed, bool bOnlyPublic, Random& random)
{
    ustring bytes = OtherBytes(iSeed, bOnlyPublic);
    for (int i = iBelow(random, 6); i > 0 && !bytes.empty(); --i) {
        bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
    }
    return bytes;
}

constexpr long kStarts[] = {0, 1, 7, -1, -5, INT_MIN, INT_MAX, INT_MAX - 1, INT_MAX - 6};

class AShortWay : public ::testing::Test
{
};
} // namespace

namespace
{
/// Notes the size of each value that it is shown.
template <class Base>
class CNoting : public Base
{
public:
    using Base::Base;
    int iPushBuffer(void* pData, int iSize, std::string szLabel) override
    {
        m_sizes.push_back(iSize);
        return Base::iPushBuffer(pData, iSize, std::move(szLabel));
    }
    int iPopBuffer(void* pData, int iSize, std::string szLabel) override
    {
        m_sizes.push_back(iSize);
        return Base::iPopBuffer(pData, iSize, std::move(szLabel));
    }

    std::vector<int> m_sizes;
};
} // namespace

TEST_F(AShortWay, IsNotForAStreamThatWantsToSeeEveryValue)
{
    CRecord root(nullptr, "root");
    CNumber<int> number(&root, "n", 0, 0, 9, 7);
    CNumber<bool> flag(&root, "b", false, false, true, true);
    CString text(&root, "s", "abc");
    CDMDateTime time(&root, "t");
    CDMList<CDMString> list(&root, "l", 3);
    CDMString item(nullptr, "i", "de");
    ASSERT_EQ(0, list.iAdd(&item, false));
    ustring bytes;
    CNoting<CSerialize> writer(&bytes, true, false, false);
    EXPECT_EQ(0, root.iSerialize(writer));
    EXPECT_EQ((std::vector<int>{1, 1, 4, 1, 1, 1, 2, 3, 1, 8, 2, 1, 1, 2, 2}), writer.m_sizes);
    const std::vector<int> popped = {1, 1, 4, 1, 1, 1, 2, 1, 1, 1, 1, 8, 2, 1, 1, 2, 1, 1};
    CNoting<CSerialize> reader(&bytes, false, false, false);
    EXPECT_EQ(0, root.iSerialize(reader));
    EXPECT_EQ(popped, reader.m_sizes);
    const auto size = static_cast<long>(bytes.size());
    CNoting<CSerializeBuffer> bufferReader(bytes.data(), size, false, false, 0);
    EXPECT_EQ(0, root.iSerialize(bufferReader));
    EXPECT_EQ(popped, bufferReader.m_sizes);
    CNoting<CSerializeBuffer> bufferWriter(bytes.data(), size, true, false, 0);
    EXPECT_EQ(0, root.iSerialize(bufferWriter));
    EXPECT_EQ(writer.m_sizes, bufferWriter.m_sizes);
}

TEST_F(AShortWay, WritesWhatTheLongOneWrites)
{
    for (unsigned i = 0; i < 100 / kSlowness; ++i) {
        walk_t walk;
        walk.bSave = true;
        walk.bOnlyPublic = i % 2 == 0;
        for (const long lStart : kStarts) {
            walk.lStart = lStart;
            ExpectEqualWays(i, ustring(600, 0xEE), walk);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST_F(AShortWay, FillsABufferAsFarAsTheLongOne)
{
    walk_t walk;
    walk.bSave = true;
    for (unsigned i = 0; i < 20 / kSlowness; ++i) {
        for (size_t size = 0; size < 100 && !HasFatalFailure(); ++size) {
            ExpectEqualWays(i, ustring(size, 0xEE), walk);
        }
    }
}

TEST_F(AShortWay, WritesNothingWithoutAByteString)
{
    CDisturbedTree tree(3, 3);
    CLongStream longStream(nullptr, true, false, false);
    CSerialize stream(nullptr, true, false, false);
    walk_t walk;
    EXPECT_EQ(Walk(tree.m_Root, longStream, walk), Walk(tree.m_Root, stream, walk));
    CSerialize reader(nullptr, false, false, false);
    CLongStream longReader(nullptr, false, false, false);
    EXPECT_EQ(Walk(tree.m_Root, longReader, walk), Walk(tree.m_Root, reader, walk));
    EXPECT_EQ(-1, tree.m_Root.iSerialize(reader));
}

TEST_F(AShortWay, ReadsWhatTheLongOneReads)
{
    Random random(1);
    for (unsigned i = 0; i < 1000 / kSlowness; ++i) {
        walk_t walk;
        walk.bOnlyPublic = i % 2 == 0;
        walk.lStart = iBelow(random, 4) == 0 ? kStarts[random() % std::size(kStarts)] : 0;
        ExpectEqualWays(i, DamagedBytes(i, walk.bOnlyPublic, random), walk);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(AShortWay, EndsWhereTheLongOneEndsInAStreamThatIsCutOff)
{
    const walk_t walk;
    for (unsigned i = 0; i < 20 / kSlowness; ++i) {
        const ustring bytes = OtherBytes(i, false);
        for (size_t size = 0; size < std::min<size_t>(bytes.size(), 100); ++size) {
            ExpectEqualWays(i, bytes.substr(0, size), walk);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST_F(AShortWay, ChecksWhatTheLongOneChecks)
{
    Random random(2);
    for (unsigned i = 0; i < 1000 / kSlowness; ++i) {
        walk_t walk;
        walk.bCheck = true;
        walk.bReset = i % 4 == 0;
        walk.bOnlyPublic = i % 2 == 0;
        ustring bytes = DamagedBytes(i, walk.bOnlyPublic, random);
        bytes.resize(iBelow(random, 2) == 0 ? bytes.size() : random() % (bytes.size() + 1));
        ExpectEqualWays(i, bytes, walk);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(AShortWay, LeavesTheLinesOfTheLongOne)
{
    const CLogLevel level;
    Random random(3);
    size_t lines = 0;
    for (unsigned i = 0; i < 60; ++i) {
        walk_t walk;
        walk.bLog = true;
        walk.bSave = i % 3 == 0;
        walk.bCheck = i % 3 == 1;
        walk.bOnlyPublic = i % 2 == 0;
        ustring bytes = DamagedBytes(i, walk.bOnlyPublic, random);
        bytes.resize(std::min<size_t>(bytes.size(), 120));
        ExpectEqualWays(i, bytes, walk);
        if (HasFatalFailure()) {
            return;
        }
        CDisturbedTree tree(i % 50, i);
        lines += ThroughBuffer<CSerializeBuffer>(tree.m_Root, bytes, walk).lines.size();
    }
    EXPECT_GT(lines, 500U);
}

TEST_F(AShortWay, EndsWithTheLastValueThatFits)
{
    // Positions at the very end of the range, which no tree reaches by its own bytes.
    CNumber<int> number(nullptr, "n", 0, 0, 9, 7);
    CString text(nullptr, "s", "abc");
    CDMDateTime time(nullptr, "t");
    for (CObjectData* const pNode :
         {static_cast<CObjectData*>(&number), static_cast<CObjectData*>(&text),
          static_cast<CObjectData*>(&time)}) {
        for (int64_t llStart = INT_MAX - 12LL; llStart <= INT_MAX; ++llStart) {
            const auto lStart = static_cast<long>(llStart);
            ustring bytes;
            CSerialize stream(&bytes, true, false, false);
            ustring longBytes;
            CLongStream longStream(&longBytes, true, false, false);
            stream.iSetPos(lStart);
            longStream.iSetPos(lStart);
            EXPECT_EQ(pNode->iSerialize(longStream), pNode->iSerialize(stream));
            EXPECT_EQ(longBytes, bytes);
            EXPECT_EQ(longStream.iGetPos(), stream.iGetPos()) << lStart;
        }
    }
}

namespace
{
/// A label that a class of its own gives itself: any bytes.
template <class Node>
class CLabelled : public Node
{
public:
    template <class... Args>
    CLabelled(CObject* pParent, std::string szLabel, Args... args) : Node(pParent, "", args...)
    {
        this->m_szLabel = std::move(szLabel);
    }
};

/// Publishes a document that it is given.
class CGiven : public CObjectData
{
public:
    explicit CGiven(Json::Value document) : CObjectData(nullptr, "given"), m_document(document) {}
    void SerializeJson(CContextJson& /*context*/, Json::Value& value, bool /*bArray*/,
                       int /*iDepth*/) override
    {
        value = m_document;
    }

private:
    const Json::Value m_document;
};

/// Publishes a number that it makes for that alone.
class CComputed : public CRecord
{
public:
    using CRecord::CRecord;
    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override
    {
        CRecord::SerializeJson(context, value, bArray, iDepth);
        {
            CNumber<int> number(nullptr, "a computed number with a long label", 0, 0, 9, 7);
            number.SerializeJson(context, value, bArray, iDepth);
            CRecord record(nullptr, "a computed record with a long label");
            CString text(&record, "a computed text with a long label", "x");
            record.SerializeJson(context, value, bArray, iDepth);
        }
        const std::string szOther(200, '-'); // where the labels were
    }
};

/// The document of a node as the JSON library writes it, with labels that were copied.
std::string szLongPublished(CObjectData& node, CContextJson& context)
{
    Json::Value value;
    EXPECT_TRUE(node.bSerializeValueJson(context, value, 1000));
    return Json::FastWriter().write(value);
}

void Relabel(CObjectData& node, Random& random)
{
    const char* const aLabels[] = {"",
                                   "a",
                                   "b",
                                   "\xC3\xA9",
                                   "\xFF\xFE",
                                   "\"",
                                   "\\",
                                   "a/b",
                                   "0",
                                   "1",
                                   "a label that is longer than those within a string"};
    node.SetLabel(aLabels[random() % std::size(aLabels)]);
    if (auto* const pRecord = dynamic_cast<CRecord*>(&node)) {
        for (int i = 0; pRecord->pGetAt(i) != nullptr; ++i) {
            Relabel(*pRecord->pGetAt(i), random);
        }
    }
}
} // namespace

TEST_F(AShortWay, PublishesWhatTheLongOnePublishes)
{
    Random random(4);
    for (unsigned i = 0; i < 1000 / kSlowness; ++i) {
        CDisturbedTree tree(i % 50, i);
        Relabel(tree.m_Root, random);
        const auto cmd = i % 4 == 0 ? CContextJson::eNotify : CContextJson::eGet;
        CContextJson context(cmd, "", SERIALIZE_JSON_STREAM, i % 2 == 0, i % 3 == 0);
        context.m_bRoot = i % 5 != 0;
        CContextJson longContext(context);
        std::string szText;
        EXPECT_TRUE(tree.m_Root.bSerializeStreamJson(context, szText, 1000));
        ASSERT_EQ(szLongPublished(tree.m_Root, longContext), szText) << i;
        EXPECT_EQ(longContext.m_iCodeHTTP, context.m_iCodeHTTP);
        EXPECT_EQ(longContext.m_szCause, context.m_szCause);
        EXPECT_EQ(longContext.m_bRoot, context.m_bRoot);
    }
}

TEST_F(AShortWay, PublishesALabelWithANul)
{
    CRecord root(nullptr, "");
    const std::string szLabel("a\0b", 3);
    CLabelled<CNumber<int>> number(&root, szLabel, 0, 0, 9, 7);
    CLabelled<CRecord> record(&root, szLabel + "c");
    CNumber<int> member(&record, "m", 0, 0, 9, 8);
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_EQ("{\"a\\u0000b\":7,\"a\\u0000bc\":{\"m\":8}}\n", szLongPublished(root, get));
    EXPECT_EQ("{\"a\\u0000b\":7,\"a\\u0000bc\":{\"m\":8}}\n",
              szPublished(root, Context(CContextJson::eGet)));
}

TEST_F(AShortWay, PublishesNodesThatHaveGoneByThen)
{
    CComputed root(nullptr, "root");
    CComputed sub(&root, "sub");
    CNumber<int> number(&sub, "number", 0, 0, 9, 5);
    CContextJson get = Context(CContextJson::eGet);
    const std::string szExpected = szLongPublished(root, get);
    EXPECT_NE(std::string::npos, szExpected.find("a computed text with a long label"));
    EXPECT_EQ(szExpected, szPublished(root, Context(CContextJson::eGet)));
}

TEST_F(AShortWay, WritesAnArrayWithGapsAsTheJsonLibraryDoes)
{
    Json::Value document;
    document["gaps"][3] = "x";
    document["gaps"][1] = Json::Value(Json::arrayValue);
    document["sized"].resize(2);
    const std::string szExpected = Json::FastWriter().write(document);
    EXPECT_EQ("{\"gaps\":[null,[],null,\"x\"],\"sized\":[null,null]}\n", szExpected);
    CGiven given(document);
    EXPECT_EQ(szExpected, szPublished(given, Context(CContextJson::eGet)));
    CContextJson get = Context(CContextJson::eGet);
    std::string szText;
    EXPECT_TRUE(given.bSerializeJson(get, &szText, &document, 1));
    EXPECT_EQ(szExpected, szText);
}

TEST_F(AShortWay, ReplacesAMemberOfADocumentAsAnAssignmentDoes)
{
    CRecord root(nullptr, "root");
    CNumber<int> number(&root, "n", 0, 0, 9, 7);
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse("// whole\n{\n// former\n\"n\": 1, // behind\n"
                                     "// other\n\"other\": 2}",
                                     document));
    Json::Value expected(document);
    expected["n"] = Json::Value(7);
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_TRUE(root.bSerializeValueJson(get, document, 1));
    EXPECT_EQ(expected.toStyledString(), document.toStyledString());
}

namespace
{
/// The document of a random tree, nulls included.
Json::Value DocumentOf(unsigned iShape, unsigned iValues)
{
    CDisturbedTree tree(iShape, iValues);
    CContextJson get = Context(CContextJson::eGet);
    get.m_bPubAll = true;
    Json::Value document;
    EXPECT_TRUE(tree.m_Root.bSerializeValueJson(get, document, 1000));
    return document;
}
} // namespace

TEST_F(AShortWay, WritesARequestAsItsTwoStepsDo)
{
    Random random(5);
    int iAccepted = 0;
    for (unsigned i = 0; i < 2000 / kSlowness; ++i) {
        CDisturbedTree first(i % 50, i);
        CDisturbedTree second(i % 50, i);
        const Json::Value document =
            i % 3 != 0 ? AnyJson(random, 3) : DocumentOf(i % 50, i + random() % 2);
        std::string szText = document.toStyledString();
        szText.insert(0, "/* a request */ ");
        const auto cmd = i % 4 == 0 ? CContextJson::ePost : CContextJson::ePut;
        CContextJson context(cmd, "", SERIALIZE_JSON_STREAM, false, i % 2 == 0);
        CContextJson steps(context);
        std::string szOut;
        const long lCode = first.m_Root.iMoWrite(context, &szText, &szOut, "");
        std::string szError;
        bool bDone = second.m_Root.iCheckStreamJson(steps, &szText, &szError, false) == 0;
        if (bDone) {
            steps.m_bRoot = true;
            bDone = second.m_Root.bDeserializeJson(steps, &szText, nullptr);
        }
        std::string szFirst;
        std::string szSecond;
        Portray(first.m_Root, szFirst);
        Portray(second.m_Root, szSecond);
        ASSERT_EQ(szSecond, szFirst) << szText;
        ASSERT_EQ(bDone ? 200 : 403, lCode) << szText;
        EXPECT_EQ(bDone ? "" : steps.m_szCause, szOut);
        EXPECT_EQ(steps.m_iCodeHTTP, context.m_iCodeHTTP);
        iAccepted += bDone ? 1 : 0;
    }
    EXPECT_GT(iAccepted, 200 / kSlowness);
    EXPECT_LT(iAccepted, 1800 / kSlowness);
}

TEST_F(AShortWay, ReadsADateAsTheCLibraryDoes)
{
    Random random(6);
    int iRead = 0;
    for (int i = 0; i < 40000 / kSlowness; ++i) {
        char aText[64];
        std::snprintf(aText, sizeof(aText), "%04d-%02d-%02dT%02d:%02d:%02dZ",
                      iBelow(random, 4) == 0 ? iBelow(random, 10000) : 1960 + iBelow(random, 90),
                      iBelow(random, 14), iBelow(random, 33), iBelow(random, 26),
                      iBelow(random, 62), iBelow(random, 64));
        std::string szText(aText);
        if (iBelow(random, 4) == 0) {
            szText[random() % szText.size()] = " 0123456789-+TZ:."[random() % 17];
        }
        szText += iBelow(random, 16) == 0 ? "x" : "";
        tm fields = {};
        time_t expected = -1;
        if (::strptime(szText.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields) != nullptr) {
            expected = ::timegm(&fields); // -1, too, of what a time_t of 32 bits has no place for
            ++iRead;
        }
        ASSERT_EQ(expected, iConvertCurrentDateTime(szText.c_str(), false)) << szText;
    }
    EXPECT_GT(iRead, 10000 / kSlowness);
}
