/// @file
/// @brief What the tests of quorctl share: the program, and the daemon's end of its connection.
#pragma once

#include "support/CChild.h"
#include "support/CTcpPeer.h"
#include "support/Frames.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace TestSupport
{
/// @return What a child does to become quorctl.
inline std::function<int()> Quorctl(std::vector<std::string> args)
{
    args.insert(args.begin(), QUORCTL);
    return [args] {
        std::vector<char*> argv; // execv(3) takes pointers to non-const, and changes nothing
        for (const std::string& szArg : args) {
            argv.push_back(const_cast<char*>(szArg.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        return 127;
    };
}

inline ChildResult RunQuorctl(const std::vector<std::string>& args)
{
    return RunInChild(Quorctl(args));
}

/// Expects no output, an exit status, and one line that begins with the program's name.
inline void ExpectFailure(const ChildResult& result, int iStatus, const std::string& szText)
{
    EXPECT_EQ(iStatus, result.iExitCode);
    EXPECT_EQ("", result.szOutput);
    EXPECT_EQ("quorctl: " + szText + '\n', result.szErrors);
}

/// @return The JSON objects of an output, one of each line.
inline std::vector<Json::Value> JsonLines(const std::string& szOutput)
{
    std::vector<Json::Value> objects;
    size_t begin = 0;
    for (size_t end = 0; (end = szOutput.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string szLine = szOutput.substr(begin, end - begin);
        Json::Value object;
        Json::CharReaderBuilder builder;
        std::string szErrors;
        const std::unique_ptr<Json::CharReader> pReader(builder.newCharReader());
        EXPECT_TRUE(
            pReader->parse(szLine.data(), szLine.data() + szLine.size(), &object, &szErrors))
            << szLine << szErrors;
        objects.push_back(object);
    }
    EXPECT_EQ(begin, szOutput.size()) << "the last line has no end";
    return objects;
}

/// @return What a command printed that has to end well and without a complaint.
inline std::string szGoodOutput(const ChildResult& result)
{
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("", result.szErrors);
    return result.szOutput;
}

/// @return The JSON object of an output of one line.
inline Json::Value OnlyObject(const std::string& szOutput)
{
    const std::vector<Json::Value> objects = JsonLines(szOutput);
    EXPECT_EQ(1U, objects.size());
    return objects.empty() ? Json::Value() : objects[0];
}

/// @brief A quorctl whose daemon is played by the test, one connection at a time.
class AQuorctl : public ::testing::Test
{
protected:
    void SetUp() override { m_Peer.Listen(); }

    std::string szName() const { return "127.0.0.1:" + std::to_string(m_Peer.iPort()); }

    /// Starts it, with the peer's port before the arguments.
    void Start(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--port", std::to_string(m_Peer.iPort())});
        m_pChild = std::make_unique<CChild>(Quorctl(args));
    }

    /// Starts it and takes its connection.
    void StartConnected(const std::vector<std::string>& args)
    {
        Start(args);
        ASSERT_TRUE(m_Peer.bAccept());
    }

    /// Starts it and takes its first frame.
    Frame Requested(const std::vector<std::string>& args)
    {
        StartConnected(args);
        return ReceiveFrame(m_Peer);
    }

    ChildResult End() { return m_pChild->Await(); }

    /// Runs it against a peer that sends these bytes when it has the request.
    ChildResult Answered(const std::vector<std::string>& args, const std::string& szAnswer)
    {
        EXPECT_TRUE(Requested(args).bComplete);
        EXPECT_TRUE(m_Peer.bSend(szAnswer));
        return End();
    }

    /// Expects that a command ends with its time. The peer accepts and answers as soon as it can;
    /// on a machine that is too busy for it the command is given a longer time.
    /// @param szBegin  What it says before " in ... ms from" the peer. @param szEnd  And behind it.
    void ExpectTimeOut(const std::vector<std::string>& command, const std::string& szAnswer,
                       const std::string& szBegin, const std::string& szEnd)
    {
        ChildResult result;
        std::string szText;
        for (const char* const pszMs : {"300", "3000", "15000"}) {
            std::vector<std::string> args = {"--timeout", pszMs};
            args.insert(args.end(), command.begin(), command.end());
            Start(args);
            if (m_Peer.bAccept() && ReceiveFrame(m_Peer).bComplete) {
                m_Peer.bSend(szAnswer);
            }
            result = End();
            szText = szBegin + " in " + pszMs + " ms from " + szName() + szEnd;
            if (result.szErrors == "quorctl: " + szText + '\n') {
                break;
            }
        }
        ExpectFailure(result, 3, szText);
    }

    CTcpPeer m_Peer;
    std::unique_ptr<CChild> m_pChild;
};
} // namespace TestSupport
