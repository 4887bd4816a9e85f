// The smallest complete daemon: configuration, log, dispatcher, one endpoint with a command of its
// own and its supervision, a data tree that it keeps, a child process, signals, and an orderly end.
#include "CHelloDaemon.h"

#include <malloc.h>

int main(int argc, char** argv)
{
    mallopt(M_ARENA_MAX, 1); // a heap for each thread is more than so few allocations are worth
    return iRunMain("hello_daemon", [argc, argv] {
        CHelloDaemon daemon(argc, argv);
        return iRunDaemon(daemon, argc, argv);
    });
}
