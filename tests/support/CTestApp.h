/// @file
/// @brief An application as a daemon derives it, with a command line of the test's.
#pragma once

#include "libQuorCore/CCoreApp.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport
{
/// @brief The arguments of a program, as main() gets them.
class CCommandLine
{
public:
    /// @param args  What follows the program's own name.
    explicit CCommandLine(std::vector<std::string> args) : m_Texts(std::move(args))
    {
        m_Texts.insert(m_Texts.begin(), "program");
        for (std::string& szText : m_Texts) {
            m_Pointers.push_back(szText.data());
        }
        m_Pointers.push_back(nullptr);
    }
    CCommandLine(const CCommandLine&) = delete;
    CCommandLine& operator=(const CCommandLine&) = delete;

    int iArgc() const { return static_cast<int>(m_Texts.size()); }
    char** argv() { return m_Pointers.data(); }

private:
    std::vector<std::string> m_Texts;
    std::vector<char*> m_Pointers; ///< Into m_Texts.
};

/// @brief An application whose protected parts a test reaches, and whose supervision it counts.
class CTestApp : public CCommandLine, public QuorCore::CCoreApp
{
public:
    /// @param args       The command line without the program's name.
    /// @param szConfig   Path of its configuration; empty: the file of the program's name.
    explicit CTestApp(std::vector<std::string> args = {}, const std::string& szConfig = "")
        : CCommandLine(std::move(args)), CCoreApp(nullptr, iArgc(), argv())
    {
        m_FileConfig.SetFilename(szConfig.c_str());
    }

    int iMonitoring() override
    {
        ++m_nMonitorings;
        return m_monitoring ? m_monitoring() : CCoreApp::iMonitoring();
    }

    void RunAs(const std::string& szUser, const std::string& szGroup = "")
    {
        m_szUser = szUser;
        m_szGroup = szGroup;
    }
    const std::string& szUser() const { return m_szUser; }
    const std::string& szGroup() const { return m_szGroup; }
    void SetRun(bool bOn) { m_bRun = bOn; }
    bool bRun() const { return m_bRun; }
    int nMonitorings() const { return m_nMonitorings; }

    std::function<int()> m_monitoring; ///< What the supervision does; set before it may be called.

private:
    std::atomic<int> m_nMonitorings{0};
};

/// @brief Fixture of the tests of applications: a fresh syslog, and a place for their files.
class CAppTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Receiver.Clear();
        QuorCore::CThread::m_Logger.Init("test");
    }

    CSyslogReceiver& m_Receiver = CSyslogReceiver::Get();
    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("app.conf");
};
} // namespace TestSupport
