/// @file
/// The main of every test program: a private /dev with a syslog receiver, then GoogleTest.

#include "support/CSyslogReceiver.h"
#include "support/PrivateDev.h"

#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <iostream>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests)) { // a build that only asks for the names needs no /dev
        try {
            TestSupport::EnterPrivateDev();
            TestSupport::CSyslogReceiver::Start();
        } catch (const std::exception& error) {
            std::cerr << "cannot set up the private /dev of the tests: " << error.what() << '\n';
            return EXIT_FAILURE;
        }
    }
    return RUN_ALL_TESTS();
}
