// The daemon of a device's front: a reset button on a GPIO line, a LED that shows it, and the
// network interface, set up by the configuration; its state is served to any number of peers.
#include "CNetd.h"

int main(int argc, char** argv)
{
    return iRunMain("netd", [argc, argv] {
        CNetd daemon(argc, argv);
        return iRunDaemon(daemon, argc, argv);
    });
}
