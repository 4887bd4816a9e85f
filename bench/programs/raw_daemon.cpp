// What hello_daemon is measured against: one thread, one listener, a line in the log, by hand.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

int main()
{
    openlog("raw_daemon", LOG_PID, LOG_LOCAL0);
    const int iListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(iListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(iListener, 1) != 0) {
        return EXIT_FAILURE;
    }
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    std::thread server([iListener] { accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC); });
    syslog(LOG_NOTICE, "ready");
    int iSignal = 0;
    sigwait(&end, &iSignal);
    shutdown(iListener, SHUT_RDWR);
    server.join();
    return EXIT_SUCCESS;
}
