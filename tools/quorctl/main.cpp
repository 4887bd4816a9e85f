// quorctl: the daemons' partner at the terminal. See quorctl.1 for what it does.
#include "CCommandLine.h"
#include "Failure.h"

#include <csignal>
#include <cstdio>
#include <exception>

namespace
{
int iFail(int iStatus, const char* pszText)
{
    std::fprintf(stderr, "quorctl: %s\n", pszText);
    return iStatus;
}
} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_DFL); // whoever started us may ignore it: "quorctl monitor | head -1" ends
    try {
        return QuorCtl::CCommandLine().Run(argc, argv);
    } catch (const QuorCtl::CFailure& failure) {
        return iFail(failure.Status(), failure.what());
    } catch (const std::exception& error) { // no descriptors, no memory, output cannot be written
        return iFail(QuorCtl::EXIT_STATUS_NO_ANSWER, error.what());
    }
}
