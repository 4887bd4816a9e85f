// The binary streams: any sequence of operations keeps to the memory and to the rules of positions.
// The first byte of the input is the room of the streams, the rest is read as operations: one byte
// each, then what the operation needs.
#include "libQuorCore/CSerializeBuffer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace QuorCore;

namespace
{
void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

/// Takes numbers from the input; zeros when it is used up.
class CInput
{
public:
    CInput(const uint8_t* pData, size_t iSize) : m_pNext(pData), m_pEnd(pData + iSize) {}

    bool bEnded() const { return m_pNext == m_pEnd; }

    template <class T>
    T Take()
    {
        T value{};
        const size_t iLeft = static_cast<size_t>(m_pEnd - m_pNext);
        const size_t iTaken = iLeft < sizeof(T) ? iLeft : sizeof(T);
        if (iTaken > 0) {
            std::memcpy(&value, m_pNext, iTaken);
        }
        m_pNext += iTaken;
        return value;
    }

private:
    const uint8_t* m_pNext;
    const uint8_t* m_pEnd;
};

/// A step of @p iWidth bytes either moves the position by that, or fails and leaves it.
void RequireStep(CSerialize& stream, int iFormerPos, int iRet, int64_t iWidth)
{
    const int64_t iEnd = int64_t{iFormerPos} + (iRet == 0 ? iWidth : 0);
    Require(iRet == 0 || iRet == -1);
    Require(stream.iGetPos() == (iEnd > INT32_MAX ? INT32_MAX : iEnd));
}

void PopValue(CSerialize& stream, CInput& input)
{
    const int iPos = stream.iGetPos();
    uint8_t iByte = 0;
    int16_t iShort = 0;
    uint32_t iInt = 0;
    time_t value = 0;
    switch (input.Take<uint8_t>() % 4) {
    case 0:
        return RequireStep(stream, iPos, stream.iPopU8(iByte, ""), 1);
    case 1:
        return RequireStep(stream, iPos, stream.iPopI16(iShort, ""), 2);
    case 2:
        return RequireStep(stream, iPos, stream.iPopU32(iInt, ""), 4);
    default:
        return RequireStep(stream, iPos, stream.iPopTime(value, ""), 4);
    }
}

void PushValue(CSerialize& stream, CInput& input)
{
    const int iPos = stream.iGetPos();
    switch (input.Take<uint8_t>() % 4) {
    case 0:
        return RequireStep(stream, iPos, stream.iPushI8(input.Take<int8_t>(), ""), 1);
    case 1:
        return RequireStep(stream, iPos, stream.iPushU16(input.Take<uint16_t>(), ""), 2);
    case 2:
        return RequireStep(stream, iPos, stream.iPushI32(input.Take<int32_t>(), ""), 4);
    default:
        return RequireStep(stream, iPos, stream.iPushTime(input.Take<time_t>(), ""), 4);
    }
}

void RunOperation(CSerialize& stream, CInput& input, std::vector<uint8_t>& scratch)
{
    const uint8_t iOperation = input.Take<uint8_t>();
    const int iPos = stream.iGetPos();
    const auto iRoom = static_cast<int>(scratch.size());
    int iSize = 0;
    switch (iOperation % 7) {
    case 0:
        Require(stream.iSetPos(input.Take<int32_t>()) == 0);
        break;
    case 1:
        PopValue(stream, input);
        break;
    case 2:
        PushValue(stream, input);
        break;
    case 3: // more than the stream can hold must be refused: there is no room for it
        iSize = input.Take<int32_t>();
        RequireStep(stream, iPos, stream.iPopBuffer(scratch.data(), iSize, ""), iSize);
        break;
    case 4:
        iSize = input.Take<int32_t>() % (iRoom + 1);
        RequireStep(stream, iPos, stream.iPushBuffer(scratch.data(), iSize, ""), iSize);
        break;
    case 5:
        stream.iPopPayload(scratch.data(), iSize, "");
        break;
    default:
        stream.iPushPayload(scratch.data(), input.Take<uint8_t>() % (iRoom + 1), "");
        break;
    }
    Require(iPos < 0 || iOperation % 7 == 0 || stream.iGetPos() >= iPos);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize)
{
    constexpr size_t kPushedMax = 1 << 16; // bytes that the operations of an input may append
    CInput input(pData, iSize);
    const size_t iRoom = input.Take<uint8_t>();
    std::vector<uint8_t> buffer(iRoom);
    ustring bytes(iRoom, 0);
    CSerializeBuffer fixed(buffer.data(), static_cast<long>(iRoom), true, false, 0);
    CSerialize growing(&bytes, true, false, false);
    while (!input.bEnded() && bytes.size() < kPushedMax) {
        CSerialize& stream = input.Take<uint8_t>() % 2 == 0 ? growing : fixed;
        std::vector<uint8_t> scratch(bytes.size() + 1); // all that either stream can hold
        RunOperation(stream, input, scratch);
    }
    return 0;
}
