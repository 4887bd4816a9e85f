#include "support/CSyslogReceiver.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr char kLogPath[] = "/dev/log";
constexpr char kMarkPrefix[] = "\x01mark ";       // no syslog line begins like this
constexpr size_t kDatagramBytesMax = 1024 * 1024; // beyond what a sender's buffer lets through
constexpr size_t kTimestampBytes = sizeof("Mon DD HH:MM:SS ") - 1;

CSyslogReceiver* pTheReceiver = nullptr;

bool bBeginsWith(const std::string& szText, const std::string& szPrefix)
{
    return szText.compare(0, szPrefix.size(), szPrefix) == 0;
}

std::string szOwnMarkPrefix()
{
    return kMarkPrefix + std::to_string(getpid()) + ' ';
}

int iCheck(int iResult, const char* pszCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), pszCall);
    }
    return iResult;
}

int iNewSocket(int (*pAttach)(int, const sockaddr*, socklen_t), const char* pszCall)
{
    const int iFd = iCheck(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kLogPath, sizeof(kLogPath));
    iCheck(pAttach(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), pszCall);
    return iFd;
}

// Moves one datagram into the store. False: there is none.
bool bStoreDatagram(int iSocket, int iStore)
{
    static std::array<char, kDatagramBytesMax> datagram;
    const ssize_t lReceived = recv(iSocket, datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (lReceived == -1) {
        return false;
    }
    auto length = static_cast<uint32_t>(lReceived);
    const std::array<iovec, 2> parts = {{{&length, sizeof(length)}, {datagram.data(), length}}};
    return writev(iStore, parts.data(), parts.size()) != -1;
}

// The receiving process: stores what comes until the last process of the test is gone, which ends
// the pipe.
[[noreturn]] void Receive(int iSocket, int iStore, int iPipe)
{
    setsid(); // signals to the test's process group are not for this one
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    const int iNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int iFd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(iNull, iFd); // who waits for the end of the test's output must not wait for this one
    }
    std::array<pollfd, 2> entries = {{{iSocket, POLLIN, 0}, {iPipe, POLLIN, 0}}};
    while (entries[1].revents == 0) {
        poll(entries.data(), entries.size(), -1);
        while (bStoreDatagram(iSocket, iStore)) {
        }
    }
    _exit(EXIT_SUCCESS);
}

// By way of a child that ends at once, so that the process is adopted by init.
void StartReceivingProcess(int iSocket, int iStore)
{
    std::array<int, 2> pipeEnds = {-1, -1};
    iCheck(pipe2(pipeEnds.data(), O_CLOEXEC), "pipe2");
    const pid_t iChild = iCheck(fork(), "fork");
    if (iChild == 0) {
        const pid_t iGrandchild = fork();
        if (iGrandchild == 0) {
            close(pipeEnds[1]);
            Receive(iSocket, iStore, pipeEnds[0]);
        }
        _exit(iGrandchild == -1 ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int iStatus = 0;
    iCheck(waitpid(iChild, &iStatus, 0), "waitpid");
    if (iStatus != 0) {
        throw std::runtime_error("cannot start the process that receives the syslog");
    }
    close(pipeEnds[0]); // the other end stays open to the end of this process
}

bool bTimestampAt(const std::string& szRaw, size_t position)
{
    return szRaw.size() >= position + kTimestampBytes && szRaw[position + 3] == ' ' &&
           szRaw[position + 9] == ':' && szRaw[position + 12] == ':';
}

CSyslogReceiver::Record Parse(std::string szRaw)
{
    CSyslogReceiver::Record record;
    size_t position = 0;
    const size_t priorityEnd = szRaw.find('>');
    if (szRaw[0] == '<' && priorityEnd != std::string::npos) {
        record.iPriority = std::atoi(szRaw.c_str() + 1);
        record.iFacility = record.iPriority & LOG_FACMASK;
        record.iLevel = LOG_PRI(record.iPriority);
        position = priorityEnd + 1;
    }
    if (bTimestampAt(szRaw, position)) {
        position += kTimestampBytes;
    }
    const size_t colon = szRaw.find(": ", position);
    if (colon != std::string::npos) {
        record.szTag = szRaw.substr(position, colon - position);
        position = colon + 2;
    }
    record.szText = szRaw.substr(position);
    const size_t bracket = record.szTag.rfind('[');
    if (bracket != std::string::npos && record.szTag.back() == ']') {
        record.iPid = std::atoi(record.szTag.c_str() + bracket + 1);
        record.szTag.resize(bracket);
    }
    record.szRaw = std::move(szRaw);
    return record;
}
std::function<bool(const CSyslogReceiver::Record&)> Contains(const std::string& szPart)
{
    return [szPart](const CSyslogReceiver::Record& record) {
        return record.szText.find(szPart) != std::string::npos;
    };
}
} // namespace

CSyslogReceiver::CSyslogReceiver() : m_iStore(iCheck(memfd_create("syslog", MFD_CLOEXEC), "memfd"))
{
    const int iSocket = iNewSocket(bind, "bind /dev/log");
    iCheck(chmod(kLogPath, 0666), "chmod /dev/log"); // tests may change their user
    m_iSyncSocket = iNewSocket(connect, "connect /dev/log");
    StartReceivingProcess(iSocket, m_iStore);
    close(iSocket); // only the receiving process has it: if that dies, a sender fails, not hangs
}

void CSyslogReceiver::Start()
{
    pTheReceiver = new CSyslogReceiver;
}

CSyslogReceiver& CSyslogReceiver::Get()
{
    if (pTheReceiver == nullptr) {
        throw std::runtime_error("CSyslogReceiver was not started: use the common main");
    }
    return *pTheReceiver;
}

void CSyslogReceiver::Clear()
{
    const std::lock_guard<std::mutex> guard(m_Lock);
    CollectAllSent();
    m_Records.clear();
}

std::vector<CSyslogReceiver::Record> CSyslogReceiver::Records()
{
    const std::lock_guard<std::mutex> guard(m_Lock);
    CollectAllSent();
    return m_Records;
}

size_t CSyslogReceiver::Count(const std::string& szPart)
{
    const std::vector<Record> records = Records();
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), Contains(szPart)));
}

bool CSyslogReceiver::bAwait(const std::function<bool(const Record&)>& predicate, int iLimitMs)
{
    const auto isThere = [this, &predicate] {
        const std::lock_guard<std::mutex> guard(m_Lock);
        Collect();
        return std::any_of(m_Records.begin(), m_Records.end(), std::cref(predicate));
    };
    return TestSupport::bAwait(isThere, iLimitMs);
}

bool CSyslogReceiver::bAwait(const std::string& szPart, int iLimitMs)
{
    return bAwait(Contains(szPart), iLimitMs);
}

// Sends a mark behind all that was sent so far and reads the store up to it: the socket keeps the
// order. A record that another thread sends at the same time may come before or after.
void CSyslogReceiver::CollectAllSent()
{
    const std::string szMark = szOwnMarkPrefix() + std::to_string(++m_Marks);
    if (send(m_iSyncSocket, szMark.data(), szMark.size(), MSG_NOSIGNAL) == -1) {
        throw std::system_error(errno, std::generic_category(), "the syslog receiver is gone");
    }
    const auto isMarkThere = [this, &szMark] {
        Collect();
        return m_szLastMark == szMark;
    };
    if (!TestSupport::bAwait(isMarkThere)) {
        throw std::runtime_error("the syslog receiver does not answer");
    }
}

// Reads what is complete in the store: the receiving process may be in the midst of a datagram.
void CSyslogReceiver::Collect()
{
    uint32_t length = 0;
    while (pread(m_iStore, &length, sizeof(length), m_Offset) == sizeof(length)) {
        std::string szRaw(length, '\0');
        const off_t begin = m_Offset + static_cast<off_t>(sizeof(length));
        if (pread(m_iStore, szRaw.data(), length, begin) != static_cast<ssize_t>(length)) {
            return;
        }
        m_Offset = begin + static_cast<off_t>(length);
        if (bBeginsWith(szRaw, szOwnMarkPrefix())) {
            m_szLastMark = std::move(szRaw);
        } else if (!bBeginsWith(szRaw, kMarkPrefix)) { // a forked child may send its own marks
            m_Records.push_back(Parse(std::move(szRaw)));
        }
    }
}
} // namespace TestSupport
