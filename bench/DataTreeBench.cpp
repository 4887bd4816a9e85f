// What it costs to write, read, publish and change a data tree, against straight code that does the
// same with the same bytes, and against the JSON library alone.

#include "libQuorCore/CDMType.h"
#include "libQuorCore/CSerializeBuffer.h"

#include "support/Bench.h"

#include <cstdint>
#include <cstring>
#include <json/json.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
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

/// A tree of so many numbers, written and read in both forms: the time for each should not grow.
class CNumbers : public CRecord
{
public:
    explicit CNumbers(int64_t iCount) : CRecord(nullptr, "numbers")
    {
        for (int64_t i = 0; i < iCount; ++i) {
            const std::string szLabel = "attribute" + std::to_string(i);
            m_numbers.push_back(std::make_unique<CDMUInt>(this, szLabel.c_str(), 7, 0, 1000000, 7));
        }
    }

private:
    std::vector<std::unique_ptr<CDMUInt>> m_numbers;
};

void BinaryOfNumbers(benchmark::State& state)
{
    CNumbers tree(state.range(0));
    ustring bytes;
    for (auto _ : state) {
        bytes.clear();
        CSerialize writer(&bytes, true, true, true);
        Require(tree.iSerialize(writer) == 0);
        CSerializeBuffer reader(bytes.data(), static_cast<long>(bytes.size()), false, true, 1);
        Require(tree.iSerialize(reader) == 0);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BinaryOfNumbers)->Arg(10)->Arg(1000)->Arg(100000);

void JsonOfNumbers(benchmark::State& state)
{
    CNumbers tree(state.range(0));
    std::string szText;
    for (auto _ : state) {
        CContextJson get(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, true);
        Require(tree.bSerializeStreamJson(get, szText, 1));
        CContextJson put(CContextJson::ePut, "", SERIALIZE_JSON_STREAM, false, true);
        Require(tree.bDeserializeStreamJson(put, szText));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(JsonOfNumbers)->Arg(10)->Arg(1000)->Arg(100000);

const bool kRegistered =
    Bench::bCompare({"encode a record of 17 attributes and 10 texts", Encode, EncodeByHand,
                     Bench::AtMostTimes(4.5), Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"decode it into a live tree", Decode, DecodeByHand, Bench::AtMostTimes(3.4),
                     Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"publish it as JSON", Publish, PublishByHand, Bench::AtMostTimes(0.8),
                     Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"check and apply a JSON request for it", WriteRequest, ParseOnly,
                     Bench::AtMostTimes(1.3), Bench::PROCESSOR_TIME});
} // namespace
