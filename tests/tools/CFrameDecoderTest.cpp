// Frames out of a stream of bytes.
#include "CFrameDecoder.h"

#include "Failure.h"
#include "support/Frames.h"

#include <gtest/gtest.h>
#include <random>

using namespace QuorCtl;
using TestSupport::FrameBytes;
using TestSupport::HeaderBytes;

namespace
{
class AFrameDecoder : public ::testing::Test
{
protected:
    void Append(const std::string& szBytes) { m_decoder.Append(szBytes.data(), szBytes.size()); }

    std::string szComplaint()
    {
        try {
            while (m_decoder.Next()) {
            }
        } catch (const CLinkFailure& failure) {
            return failure.what();
        }
        return "";
    }

    CFrameDecoder m_decoder{"peer"};
};

TEST_F(AFrameDecoder, FindsFramesThatComeTogether)
{
    Append(FrameBytes(10, "abc") + FrameBytes(18) + FrameBytes(11, "x").substr(0, 20));
    std::optional<CFrame> frame = m_decoder.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(10, frame->header.command);
    EXPECT_EQ("abc", frame->szData);
    frame = m_decoder.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(18, frame->header.command);
    EXPECT_EQ("", frame->szData);
    EXPECT_FALSE(m_decoder.Next());
    EXPECT_TRUE(m_decoder.bMidFrame());
}

TEST_F(AFrameDecoder, FindsAFrameThatComesByteByByte)
{
    const std::string szBytes = FrameBytes(3000, "text");
    for (size_t i = 0; i + 1 < szBytes.size(); ++i) {
        Append(szBytes.substr(i, 1));
        EXPECT_FALSE(m_decoder.Next());
    }
    Append(szBytes.substr(szBytes.size() - 1));
    const std::optional<CFrame> frame = m_decoder.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ("text", frame->szData);
    EXPECT_FALSE(m_decoder.bMidFrame());
}

TEST_F(AFrameDecoder, TakesTheLargestFrame)
{
    Append(FrameBytes(10, std::string(65535, 'x')));
    const std::optional<CFrame> frame = m_decoder.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(65535U, frame->szData.size());
}

TEST_F(AFrameDecoder, RefusesASizeThatIsTooLarge)
{
    Append(HeaderBytes(10, 65536));
    EXPECT_EQ("peer announced 65536 bytes of data; a frame has 65535 at most", szComplaint());
}

TEST_F(AFrameDecoder, RefusesTheFirstWrongByte)
{
    Append("\xAA");
    EXPECT_EQ("", szComplaint());
    Append("H");
    EXPECT_EQ("peer sent something that is no frame (wrong magic number)", szComplaint());
}

TEST_F(AFrameDecoder, GivesWhatWasSentHoweverItIsCut)
{
    std::mt19937 random(7);
    std::string szStream;
    std::vector<std::string> sent;
    for (size_t i = 0; i < 300; ++i) {
        sent.push_back(std::string(random() % 3000, static_cast<char>('a' + i % 26)));
        szStream += FrameBytes(static_cast<uint16_t>(i), sent.back());
    }
    size_t nFound = 0;
    while (!szStream.empty()) {
        const size_t piece = std::min<size_t>(szStream.size(), 1 + random() % 9000);
        Append(szStream.substr(0, piece));
        szStream.erase(0, piece);
        while (const std::optional<CFrame> frame = m_decoder.Next()) {
            ASSERT_LT(nFound, sent.size());
            EXPECT_EQ(nFound, frame->header.command);
            EXPECT_EQ(sent[nFound++], frame->szData);
        }
    }
    EXPECT_EQ(sent.size(), nFound);
}

TEST(APongOfQuorctl, IsThePingWithAnotherCommand)
{
    CFrame ping(10, "data");
    ping.header.user1 = -3;
    ping.header.error = 5;
    const TestSupport::Frame pong = TestSupport::ParseFrame(PongFor(ping).szBytes());
    EXPECT_TRUE(pong.bComplete);
    EXPECT_EQ(0xAAAA, pong.iMagic);
    EXPECT_EQ(18, pong.iCommand);
    EXPECT_EQ(0, pong.iError);
    EXPECT_EQ(-3, pong.iUser1);
    EXPECT_EQ("data", pong.szData);
}
} // namespace
