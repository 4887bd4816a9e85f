// A modem daemon: keeps a modem at work, and answers other daemons and people who ask about it.
#include "CModemDaemon.h"

int main(int argc, char** argv)
{
    return iRunMain("modemd", [argc, argv] {
        CModemDaemon daemon(argc, argv);
        return iRunDaemon(daemon, argc, argv);
    });
}
