// quorctl: the daemons' partner at the terminal. See quorctl.1 for what it does.
#include "CCommandLine.h"
#include "Failure.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace
{
int iFail(int iStatus, const char* pszText)
{
    std::fprintf(stderr, "quorctl: %s\n", pszText);
    return iStatus;
}

// The kernel gives a new socket the lowest free number. Had whoever started us closed 1, our output
// would go to the daemon. What fills the gap is open the wrong way round: using it fails as before.
void FillStandardDescriptors()
{
    constexpr int kWrongWay[] = {O_WRONLY, O_RDONLY, O_RDONLY};
    for (int iFd = STDIN_FILENO; iFd <= STDERR_FILENO; ++iFd) {
        if (fcntl(iFd, F_GETFD) == -1 && open("/dev/null", kWrongWay[iFd]) == -1) {
            throw std::system_error(errno, std::generic_category(), "/dev/null");
        }
    }
}
} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_DFL); // whoever started us may ignore it: "quorctl monitor | head -1" ends
    try {
        FillStandardDescriptors();
        return QuorCtl::CCommandLine().Run(argc, argv);
    } catch (const QuorCtl::CFailure& failure) {
        return iFail(failure.Status(), failure.what());
    } catch (const std::exception& error) { // no descriptors, no memory, output cannot be written
        return iFail(QuorCtl::EXIT_STATUS_NO_ANSWER, error.what());
    }
}
