// Frames out of bytes that come in any pieces.
#include "internal/CFrameAssembler.h"

#include "support/Frames.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using eResult = CFrameAssembler::eResult;

constexpr long kDataMax = 100;

class AFrameAssembler : public ::testing::Test
{
protected:
    /// Gives it one piece. @return The result that ended it; the frames are kept.
    eResult Feed(const std::string& szPiece, long lDataMax = kDataMax)
    {
        received_t received{reinterpret_cast<const uint8_t*>(szPiece.data()), szPiece.size()};
        eResult result = eResult::INCOMPLETE;
        do {
            result = m_Assembler.eTake(received, lDataMax, m_room.data());
            if (result == eResult::FRAME) {
                Keep();
            }
        } while (result == eResult::FRAME && received.nBytes > 0);
        m_nLeft = received.nBytes;
        return result;
    }

    /// Gives it a stream in pieces of the same size. @return All frames.
    std::vector<std::string> FeedPieces(const std::string& szStream, size_t nPiece)
    {
        m_frames.clear();
        for (size_t n = 0; n < szStream.size(); n += nPiece) {
            const eResult result = Feed(szStream.substr(n, nPiece), 65535);
            EXPECT_TRUE(result == eResult::FRAME || result == eResult::INCOMPLETE);
        }
        return m_frames;
    }

    CFrameAssembler m_Assembler;
    std::vector<std::string> m_frames;
    size_t m_nLeft = 0; // of the last piece

private:
    void Keep()
    {
        const std::string szHeader(m_room.begin(), m_room.begin() + kHeaderBytes);
        const size_t nFrame = kHeaderBytes + ParseFrame(szHeader).iSize;
        ASSERT_LE(nFrame, m_room.size());
        m_frames.emplace_back(m_room.begin(), m_room.begin() + static_cast<long>(nFrame));
    }

    std::vector<uint8_t> m_room = std::vector<uint8_t>(kHeaderBytes + 65535);
};

std::vector<std::string> SomeFrames()
{
    return {FrameBytes(1), FrameBytes(2, "a"), FrameBytes(3, std::string(60, '\xAA')),
            FrameBytes(4, std::string(100, 'x')), FrameBytes(5)};
}

std::string Joined(const std::vector<std::string>& frames)
{
    std::string szStream;
    for (const std::string& szFrame : frames) {
        szStream += szFrame;
    }
    return szStream;
}
} // namespace

TEST_F(AFrameAssembler, FindsTheFramesOfAStreamCutAtAnyTwoPlaces)
{
    const std::vector<std::string> frames = SomeFrames();
    const std::string szStream = Joined(frames);
    for (size_t first = 0; first <= szStream.size(); ++first) {
        for (size_t second = first; second <= szStream.size(); second += kSlowness) {
            m_frames.clear();
            Feed(szStream.substr(0, first));
            Feed(szStream.substr(first, second - first));
            Feed(szStream.substr(second));
            ASSERT_EQ(frames, m_frames) << first << ", " << second;
            ASSERT_TRUE(m_Assembler.bEmpty());
        }
    }
}

TEST_F(AFrameAssembler, FindsTheFramesOfAStreamInPiecesOfAnySize)
{
    const std::vector<std::string> frames = SomeFrames();
    const std::string szStream = Joined(frames);
    for (size_t nPiece = 1; nPiece <= szStream.size(); ++nPiece) {
        ASSERT_EQ(frames, FeedPieces(szStream, nPiece)) << nPiece;
    }
}

TEST_F(AFrameAssembler, TakesTheLargestFrame)
{
    const std::vector<std::string> frames = {FrameBytes(1, std::string(65535, 'x')), FrameBytes(2)};
    for (const size_t nPiece : {size_t{1}, size_t{1000}, size_t{65536}, size_t{100000}}) {
        ASSERT_EQ(frames, FeedPieces(Joined(frames), nPiece)) << nPiece;
    }
}

TEST_F(AFrameAssembler, GivesOneFrameAtATime)
{
    const std::string szStream = FrameBytes(1) + FrameBytes(2);
    received_t received{reinterpret_cast<const uint8_t*>(szStream.data()), szStream.size()};
    uint8_t aFrame[kHeaderBytes];
    EXPECT_EQ(eResult::FRAME, m_Assembler.eTake(received, 0, aFrame));
    EXPECT_EQ(kHeaderBytes, received.nBytes);
    EXPECT_TRUE(m_Assembler.bEmpty());
    EXPECT_EQ(eResult::FRAME, m_Assembler.eTake(received, 0, aFrame));
    EXPECT_EQ(0U, received.nBytes);
    EXPECT_EQ(eResult::INCOMPLETE, m_Assembler.eTake(received, 0, aFrame)) << "of nothing";
}

TEST_F(AFrameAssembler, KnowsWrongMagicByItsFirstByte)
{
    EXPECT_EQ(eResult::BAD_MAGIC, Feed("\xAB"));
}

TEST_F(AFrameAssembler, KnowsWrongMagicByItsSecondByte)
{
    EXPECT_EQ(eResult::INCOMPLETE, Feed("\xAA"));
    EXPECT_EQ(eResult::BAD_MAGIC, Feed("\xAB"));
}

TEST_F(AFrameAssembler, DoesNotSearchForTheNextFrame)
{
    EXPECT_EQ(eResult::BAD_MAGIC, Feed(FrameBytes(1) + "x" + FrameBytes(2)));
    EXPECT_EQ((std::vector<std::string>{FrameBytes(1)}), m_frames);
}

TEST_F(AFrameAssembler, TakesDataUpToTheLimit)
{
    EXPECT_EQ(eResult::FRAME, Feed(FrameBytes(1, std::string(kDataMax, 'x'))));
    EXPECT_EQ(eResult::OVERSIZE, Feed(HeaderBytes(1, kDataMax + 1)));
}

TEST_F(AFrameAssembler, TakesASizeForWhatItIsAndNoMore)
{
    for (const uint32_t iSize :
         {101U, 65535U, 65536U, 65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFECU, 0xFFFFFFFFU}) {
        CFrameAssembler assembler;
        const std::string szHeader = HeaderBytes(1, iSize);
        received_t received{reinterpret_cast<const uint8_t*>(szHeader.data()), szHeader.size()};
        uint8_t aFrame[kHeaderBytes];
        EXPECT_EQ(eResult::OVERSIZE, assembler.eTake(received, kDataMax, aFrame)) << iSize;
    }
}

TEST_F(AFrameAssembler, TakesNoDataWithALimitBelowNone)
{
    EXPECT_EQ(eResult::FRAME, Feed(FrameBytes(1), -1));
    EXPECT_EQ(eResult::OVERSIZE, Feed(FrameBytes(1, "x"), -1));
}

TEST_F(AFrameAssembler, AsksForTheLimitAgainWithEachPiece)
{
    EXPECT_EQ(eResult::INCOMPLETE, Feed(HeaderBytes(1, 50) + "begun"));
    EXPECT_EQ(eResult::OVERSIZE, Feed("x", 49)) << "the room may have become smaller";
}

TEST_F(AFrameAssembler, LeavesBytesBehindTheFrameAlone)
{
    const std::string szFrame = FrameBytes(1, "ab");
    received_t received{reinterpret_cast<const uint8_t*>(szFrame.data()), szFrame.size()};
    std::string szRoom(kHeaderBytes + 4, '?');
    ASSERT_EQ(eResult::FRAME,
              m_Assembler.eTake(received, 4, reinterpret_cast<uint8_t*>(szRoom.data())));
    EXPECT_EQ(szFrame + "??", szRoom);
}
