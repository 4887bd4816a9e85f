/// @file
/// The main of every test program: processes and a /dev of its own with a syslog receiver, then
/// GoogleTest.

#include "support/CSyslogReceiver.h"
#include "support/PrivateDev.h"
#include "support/PrivateProcesses.h"
#include "support/Signals.h"

#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <iostream>

namespace
{
/// Lets a case see what has been sent to the syslog in its own time only, when a program runs all
/// of its cases in one process.
class CFreshSyslog : public ::testing::EmptyTestEventListener
{
    void OnTestStart(const ::testing::TestInfo& /*test*/) override
    {
        TestSupport::CSyslogReceiver::Get().Clear();
    }
};

int iRunTests()
{
    try {
        TestSupport::EnterPrivateDev();
        TestSupport::CSyslogReceiver::Start();
    } catch (const std::exception& error) {
        std::cerr << "cannot set up the private /dev of the tests: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    TestSupport::WaitOnce();
    ::testing::UnitTest::GetInstance()->listeners().Append(
        new CFreshSyslog); // GoogleTest's to delete
    return RUN_ALL_TESTS();
}
} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (::testing::GTEST_FLAG(list_tests)) { // a build that only asks for the names needs nothing
        return RUN_ALL_TESTS();
    }
    return TestSupport::iRunAmongOwnProcesses(iRunTests);
}
