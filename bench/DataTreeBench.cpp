// What it costs to write, read, publish and change a data tree, against straight code that does the
// same with the same bytes, and against the JSON library alone.

#include "libQuorCore/CDMType.h"
#include "libQuorCore/CSerializeBuffer.h"

#include "support/Bench.h"

#include <cstdint>
#include <cstring>
#include <json/json.h>
#include <malloc.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr double kMib = 1024.0 * 1024.0;
constexpr int kUnsigned = 12;
constexpr int kItems = 10;
constexpr size_t kBytes = 259; // of the record below
constexpr const char* kLabels[kUnsigned] = {"arfcn",     "rssi", "ber",  "rxQual",
                                            "rscp",      "ecno", "rsrp", "sRxLev",
                                            "cellIdent", "lac",  "mcc",  "mnc"};

/// 17 attributes and a list of 10 texts.
class CSample : public CRecord
{
public:
    CSample() : CRecord(nullptr, "sample")
    {
        for (const char* szLabel : kLabels) {
            m_numbers.push_back(std::make_unique<CDMUInt>(this, szLabel, 7, 0, 1000000, 7));
        }
        m_Time.SetVal(1794745800);
        m_Modified.SetVal(1794745801);
        for (int i = 0; i < kItems; ++i) {
            CDMString* const pItem = m_List.pNewObject();
            pItem->SetVal("+33123456789");
            m_List.iAdd(pItem, true);
        }
    }

    CDMString m_Techno{this, "techno", "HSPA+ 42"};
    CDMString m_Name{this, "name", "cell 123"};
    CDMInt m_Level{this, "rxLevel", -85, -999, 0, -999};
    CDMDateTime m_Time{this, "dateMes"};
    CDMDateTime m_Modified{this, "modified"};
    CDMList<CDMString> m_List{this, "numbers", kItems};
    std::vector<std::unique_ptr<CDMUInt>> m_numbers;
};

/// The same values in a plain record.
struct sample_t {
    uint8_t attribut = 0;
    std::string techno = "HSPA+ 42";
    std::string name = "cell 123";
    int32_t level = -85;
    int64_t time = 1794745800;
    int64_t modified = 1794745801;
    std::vector<std::string> list = std::vector<std::string>(kItems, "+33123456789");
    uint32_t numbers[kUnsigned] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
};

void Put(ustring& bytes, const void* pData, size_t size)
{
    bytes.append(static_cast<const unsigned char*>(pData), size);
}

template <class T>
void PutValue(ustring& bytes, const sample_t& sample, T value)
{
    Put(bytes, &sample.attribut, 1);
    Put(bytes, &value, sizeof(value));
}

void PutText(ustring& bytes, const sample_t& sample, const std::string& szText)
{
    PutValue(bytes, sample, static_cast<uint16_t>(szText.size()));
    Put(bytes, szText.data(), szText.size());
}

/// Straight code: field by field into the string.
void Write(ustring& bytes, const sample_t& sample)
{
    Put(bytes, &sample.attribut, 1);
    PutText(bytes, sample, sample.techno);
    PutText(bytes, sample, sample.name);
    PutValue(bytes, sample, sample.level);
    PutValue(bytes, sample, sample.time);
    PutValue(bytes, sample, sample.modified);
    const auto count = static_cast<uint16_t>(sample.list.size());
    Put(bytes, &count, sizeof(count));
    Put(bytes, &sample.attribut, 1);
    for (const std::string& szItem : sample.list) {
        PutText(bytes, sample, szItem);
    }
    for (const uint32_t iNumber : sample.numbers) {
        PutValue(bytes, sample, iNumber);
    }
}

/// Straight code that reads, every length tested.
class CReader
{
public:
    explicit CReader(const ustring& bytes) : m_pNext(bytes.data()), m_pEnd(m_pNext + bytes.size())
    {
    }
    template <class T>
    bool bTake(T& value)
    {
        if (static_cast<size_t>(m_pEnd - m_pNext) < sizeof(value)) {
            return false;
        }
        std::memcpy(&value, m_pNext, sizeof(value));
        m_pNext += sizeof(value);
        return true;
    }
    template <class T>
    bool bTakeValue(sample_t& sample, T& value)
    {
        return bTake(sample.attribut) && bTake(value);
    }
    bool bTakeText(sample_t& sample, std::string& szText)
    {
        uint16_t iLength = 0;
        if (!bTakeValue(sample, iLength) || m_pEnd - m_pNext < iLength) {
            return false;
        }
        szText.assign(reinterpret_cast<const char*>(m_pNext), iLength);
        m_pNext += iLength;
        return true;
    }

private:
    const unsigned char* m_pNext;
    const unsigned char* m_pEnd;
};

bool bRead(const ustring& bytes, sample_t& sample)
{
    CReader reader(bytes);
    uint16_t iCount = 0;
    bool bDone = reader.bTake(sample.attribut) && reader.bTakeText(sample, sample.techno) &&
                 reader.bTakeText(sample, sample.name) && reader.bTakeValue(sample, sample.level) &&
                 reader.bTakeValue(sample, sample.time) &&
                 reader.bTakeValue(sample, sample.modified) && reader.bTake(iCount) &&
                 reader.bTake(sample.attribut) && iCount == sample.list.size();
    for (auto item = sample.list.begin(); bDone && item != sample.list.end(); ++item) {
        bDone = reader.bTakeText(sample, *item);
    }
    for (uint32_t& iNumber : sample.numbers) {
        bDone = bDone && reader.bTakeValue(sample, iNumber);
    }
    return bDone;
}

void Require(bool bHolds)
{
    if (!bHolds) {
        throw std::logic_error("the sample is not what it should be");
    }
}

ustring SampleBytes()
{
    ustring bytes;
    Write(bytes, sample_t());
    CSample sample;
    ustring encoded;
    CSerialize stream(&encoded, true, false, true);
    Require(sample.iSerialize(stream) == 0 && encoded == bytes && bytes.size() == kBytes);
    return bytes;
}

void Encode(benchmark::State& state)
{
    CSample sample;
    ustring bytes = SampleBytes();
    for (auto _ : state) {
        bytes.clear();
        CSerialize stream(&bytes, true, true, true);
        sample.iSerialize(stream);
        benchmark::DoNotOptimize(bytes.data());
    }
}

void EncodeByHand(benchmark::State& state)
{
    const sample_t sample;
    ustring bytes = SampleBytes();
    for (auto _ : state) {
        bytes.clear();
        Write(bytes, sample);
        benchmark::DoNotOptimize(bytes.data());
    }
}

void Decode(benchmark::State& state)
{
    CSample sample;
    ustring bytes = SampleBytes();
    for (auto _ : state) {
        CSerializeBuffer stream(bytes.data(), static_cast<long>(bytes.size()), false, true, 1);
        Require(sample.iSerialize(stream) == 0);
    }
}

void DecodeByHand(benchmark::State& state)
{
    sample_t sample;
    const ustring bytes = SampleBytes();
    for (auto _ : state) {
        Require(bRead(bytes, sample));
        benchmark::DoNotOptimize(&sample);
    }
}

void Publish(benchmark::State& state)
{
    CSample sample;
    std::string szOut;
    for (auto _ : state) {
        CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, true);
        sample.bSerializeStreamJson(context, szOut, 1);
        benchmark::DoNotOptimize(szOut.data());
    }
}

/// The ordinary way: a document, member by member, then its text.
void PublishByHand(benchmark::State& state)
{
    const sample_t sample;
    for (auto _ : state) {
        Json::Value value;
        value["techno"] = sample.techno;
        value["name"] = sample.name;
        value["rxLevel"] = sample.level;
        value["dateMes"] = GetDateTimeString(static_cast<time_t>(sample.time), false);
        value["modified"] = GetDateTimeString(static_cast<time_t>(sample.modified), false);
        for (const std::string& szItem : sample.list) {
            value["numbers"].append(szItem);
        }
        for (int i = 0; i < kUnsigned; ++i) {
            value[kLabels[i]] = sample.numbers[i];
        }
        std::string szOut = Json::FastWriter().write(value);
        benchmark::DoNotOptimize(szOut.data());
    }
}

std::string szRequest()
{
    CSample sample;
    CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, true);
    std::string szText;
    Require(sample.bSerializeStreamJson(context, szText, 1));
    return szText;
}

void WriteRequest(benchmark::State& state)
{
    CSample sample;
    std::string szText = szRequest();
    std::string szOut;
    for (auto _ : state) {
        CContextJson context(CContextJson::ePut, "", SERIALIZE_JSON_STREAM, false, true);
        Require(sample.iMoWrite(context, &szText, &szOut, "") == CContextJson::kOk);
    }
}

void ParseOnly(benchmark::State& state)
{
    const std::string szText = szRequest();
    for (auto _ : state) {
        Json::Value value;
        Require(Json::Reader().parse(szText, value));
        benchmark::DoNotOptimize(&value);
    }
}

/// A tree of so many numbers, a power of ten: each record has ten members.
class CNumbers : public CRecord
{
public:
    explicit CNumbers(int iCount, CObject* pParent = nullptr, const char* szLabel = "numbers")
        : CRecord(pParent, szLabel)
    {
        for (int i = 0; i < kMembers; ++i) {
            const std::string szMember = "attribute" + std::to_string(i);
            if (iCount > kMembers) {
                m_records.push_back(
                    std::make_unique<CNumbers>(iCount / kMembers, this, szMember.c_str()));
            } else {
                m_numbers.push_back(
                    std::make_unique<CDMUInt>(this, szMember.c_str(), 7, 0, 1000000, 7));
            }
        }
    }

private:
    static constexpr int kMembers = 10;

    std::vector<std::unique_ptr<CNumbers>> m_records;
    std::vector<std::unique_ptr<CDMUInt>> m_numbers;
};

/// What is done with a tree, over and over.
struct encode_t {
    explicit encode_t(CNumbers& tree) : m_Tree(tree) { Do(); }
    void Do()
    {
        m_bytes.clear();
        CSerialize stream(&m_bytes, true, true, true);
        Require(m_Tree.iSerialize(stream) == 0);
    }

    CNumbers& m_Tree;
    ustring m_bytes;
};

struct decode_t : encode_t {
    using encode_t::encode_t;
    void Do()
    {
        CSerializeBuffer stream(m_bytes.data(), static_cast<long>(m_bytes.size()), false, true, 1);
        Require(m_Tree.iSerialize(stream) == 0);
    }
};

struct publish_t {
    explicit publish_t(CNumbers& tree) : m_Tree(tree) { Do(); }
    void Do()
    {
        CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, true);
        Require(m_Tree.bSerializeStreamJson(context, m_szText, 1));
    }

    CNumbers& m_Tree;
    std::string m_szText;
};

struct read_t : publish_t {
    using publish_t::publish_t;
    void Do()
    {
        CContextJson context(CContextJson::ePut, "", SERIALIZE_JSON_STREAM, false, true);
        Require(m_Tree.bDeserializeStreamJson(context, m_szText));
    }
};

/// A job done with kTrees trees of kAttributes each: where the time is linear, their product alone
/// counts.
template <class Job, int kTrees, int kAttributes>
void DoWithTrees(benchmark::State& state)
{
    std::vector<std::unique_ptr<CNumbers>> trees;
    std::vector<Job> jobs;
    for (int i = 0; i < kTrees; ++i) {
        trees.push_back(std::make_unique<CNumbers>(kAttributes));
        jobs.emplace_back(*trees.back());
    }
    for (auto _ : state) {
        for (Job& job : jobs) {
            job.Do();
        }
    }
}

template <class Job>
bool bCompareSizes(const char* szLarge, const char* szSmall)
{
    return Bench::bCompare({szLarge, DoWithTrees<Job, 1, 100000>, DoWithTrees<Job, 100, 1000>,
                            Bench::AtMostTimes(1.2), Bench::PROCESSOR_TIME}) &&
           Bench::bCompare({szSmall, DoWithTrees<Job, 1, 1000>, DoWithTrees<Job, 100, 10>,
                            Bench::AtMostTimes(1.2), Bench::PROCESSOR_TIME});
}

/// What 1,000,000 numbers and their places in a record take of the heap: ten times 100,000.
void MemoryOfNumbers(benchmark::State& state)
{
    constexpr int kNumbers = 100000;
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        CRecord record(nullptr, "record");
        std::vector<std::unique_ptr<CDMUInt>> numbers;
        numbers.reserve(kNumbers);
        const size_t own = mallinfo2().uordblks - before;
        for (int i = 0; i < kNumbers; ++i) {
            numbers.push_back(std::make_unique<CDMUInt>(&record, "attribute", 7, 0, 1000000, 7));
        }
        const size_t used = mallinfo2().uordblks - before - own;
        state.SetIterationTime(static_cast<double>(used) * 10 / kMib * 1e-9); // as ns
    }
}

const bool kRegistered =
    Bench::bCompare({"encode a record of 17 attributes and 10 texts", Encode, EncodeByHand,
                     Bench::AtMostTimes(4.5), Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"decode it into a live tree", Decode, DecodeByHand, Bench::AtMostTimes(3.4),
                     Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"publish it as JSON", Publish, PublishByHand, Bench::AtMostTimes(0.8),
                     Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"check and apply a JSON request for it", WriteRequest, ParseOnly,
                     Bench::AtMostTimes(1.3), Bench::PROCESSOR_TIME}) &&
    bCompareSizes<encode_t>("encode 1 tree of 100,000, as 100 of 1,000",
                            "encode 1 tree of 1,000, as 100 of 10") &&
    bCompareSizes<decode_t>("decode 1 tree of 100,000, as 100 of 1,000",
                            "decode 1 tree of 1,000, as 100 of 10") &&
    bCompareSizes<publish_t>("publish 1 tree of 100,000, as 100 of 1,000",
                             "publish 1 tree of 1,000, as 100 of 10") &&
    bCompareSizes<read_t>("read 1 tree of 100,000, as 100 of 1,000",
                          "read 1 tree of 1,000, as 100 of 10") &&
    Bench::bCompare({"heap of 1,000,000 numbers", MemoryOfNumbers, nullptr, Bench::AtMostMib(256),
                     Bench::SUPPLIED});
} // namespace
