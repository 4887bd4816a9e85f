#include "support/CNetLab.h"

#include "support/CDeadline.h"
#include "support/Files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <set>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace TestSupport
{
namespace
{
constexpr char kLeases[] = "/var/lib/dhcp";
constexpr char kServer[] =
    "exec dnsmasq --keep-in-foreground --log-facility=- --user=root --conf-file=/dev/null "
    "--no-resolv --no-hosts --no-ping --port=0 --interface=srv0 --bind-interfaces "
    "--pid-file --dhcp-leasefile=/run/leases --dhcp-authoritative "
    "--dhcp-range=10.77.0.100,10.77.0.110,255.255.255.0,2m "
    "--dhcp-option=3,10.77.0.1 --dhcp-option=6,10.77.0.53 ";
constexpr char kServerIpv6[] = "--dhcp-range=fd77::100,fd77::110,64,2m --enable-ra ";

void Check(bool bDone, const std::string& szCall)
{
    if (!bDone) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
}

QuorCore::CUniqueFd OpenDirectory(const char* szPath)
{
    return QuorCore::CUniqueFd(open(szPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Makes a new network namespace that of this thread. @return A handle to it.
QuorCore::CUniqueFd NewNetwork()
{
    Check(unshare(CLONE_NEWNET) == 0, "unshare(CLONE_NEWNET)");
    QuorCore::CUniqueFd network(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    Check(static_cast<bool>(network), "/proc/thread-self/ns/net");
    return network;
}

void Cover(const char* szPath)
{
    Check(mount("tmpfs", szPath, "tmpfs", MS_NOSUID, "mode=755") == 0,
          std::string("mount over ") + szPath);
}

ino_t Inode(const QuorCore::CUniqueFd& file)
{
    struct stat status = {};
    Check(fstat(file.iGet(), &status) == 0, "fstat");
    return status.st_ino;
}

/// Names in a directory that begin with a text, in order.
std::set<std::string> Names(const QuorCore::CUniqueFd& directory, const std::string& szBegin)
{
    std::set<std::string> names;
    if (directory) { // there may be none of it on this machine
        for (const auto& entry :
             fs::directory_iterator("/proc/self/fd/" + std::to_string(directory.iGet()))) {
            const std::string szName = entry.path().filename();
            if (szName.compare(0, szBegin.size(), szBegin) == 0) {
                names.insert(szName);
            }
        }
    }
    return names;
}
} // namespace

std::string CNetLab::szWhyNot()
{
    if (geteuid() != 0) {
        return "setting up a network takes root";
    }
    for (const char* szProgram :
         {"/sbin/ip", "/sbin/dhclient", "/usr/bin/sudo", "/usr/sbin/dnsmasq"}) {
        if (access(szProgram, X_OK) != 0) {
            return std::string(szProgram) + " is not installed, see scripts/packages";
        }
    }
    return "";
}

CNetLab::CNetLab()
    : m_MachineEtc(OpenDirectory("/etc")), m_MachineRun(OpenDirectory("/run")),
      m_MachineLeases(OpenDirectory(kLeases))
{
    CoverFiles();
    Check(unshare(CLONE_NEWUTS) == 0, "unshare(CLONE_NEWUTS)");
    Check(sethostname("localhost", 9) == 0, "sethostname"); // sudo(8) wants one that it can look up
    m_ServerNetwork = NewNetwork();
    m_Network = NewNetwork();
    LinkNetworks();
}

CNetLab::~CNetLab()
{
    EndPrograms();
    for (const char* szCovered : {"/etc", kLeases, "/run"}) {
        umount2(szCovered, MNT_DETACH);
    }
}

void CNetLab::CoverFiles()
{
    Cover("/run");
    for (const char* szDirectory : {"/run/dnsmasq", "/run/sudo", "/run/lock", "/run/etc"}) {
        fs::create_directory(szDirectory);
    }
    szRun({"cp", "--archive", "/etc/.", "/run/etc"}); // dhclient-script(8) puts its files in there
    Check(mount("/run/etc", "/etc", nullptr, MS_BIND, nullptr) == 0, "mount over /etc");
    fs::create_directories(kLeases);
    Cover(kLeases);
    WriteFile("/etc/dhcp/dhclient.conf", "timeout 60;\ninitial-interval 1;\nbackoff-cutoff 1;\n"
                                         "request subnet-mask, routers, domain-name-servers;\n");
}

void CNetLab::LinkNetworks()
{
    const std::string szServerNetwork =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_ServerNetwork.iGet());
    szRun({"ip", "link", "set", "lo", "up"});
    szRun({"ip", "link", "add", "dev0", "type", "veth", "peer", "name", "srv0", "netns",
           szServerNetwork});
    Check(setns(m_ServerNetwork.iGet(), CLONE_NEWNET) == 0, "setns");
    if (bHasIpv6()) { // else the address is not usable for a second or two
        WriteFile("/proc/sys/net/ipv6/conf/srv0/accept_dad", "0");
        szRun({"ip", "addr", "add", "fd77::1/64", "dev", "srv0", "nodad"});
    }
    szRun({"ip", "addr", "add", "10.77.0.1/24", "dev", "srv0"});
    szRun({"ip", "link", "set", "srv0", "up"});
    Check(setns(m_Network.iGet(), CLONE_NEWNET) == 0, "setns");
    if (bHasIpv6()) {
        WriteFile("/proc/sys/net/ipv6/conf/dev0/accept_dad", "0");
    }
}

bool CNetLab::bHasIpv6() const
{
    return fs::exists("/proc/sys/net/ipv6/conf/lo");
}

void CNetLab::StartServer()
{
    const std::string szCommand =
        std::string(kServer) + (bHasIpv6() ? kServerIpv6 : "") + "2>&1"; // where it logs
    Check(setns(m_ServerNetwork.iGet(), CLONE_NEWNET) == 0, "setns");
    m_pServer = std::make_unique<CChild>([&] {
        execl("/bin/sh", "sh", "-c", szCommand.c_str(), static_cast<char*>(nullptr));
        return EXIT_FAILURE;
    });
    Check(setns(m_Network.iGet(), CLONE_NEWNET) == 0, "setns");
    if (!m_pServer->bAwaitOutput("sockets bound exclusively to interface srv0")) {
        throw std::runtime_error("the DHCP server does not start: " + m_pServer->Await(0).szOutput);
    }
}

std::string CNetLab::szRun(const std::vector<std::string>& args)
{
    ChildResult result = RunProgram(args);
    if (result.iExitCode != 0) {
        std::string szCommand;
        for (const std::string& szArg : args) {
            szCommand += szArg + ' ';
        }
        throw std::runtime_error(szCommand + "failed: " + result.szErrors);
    }
    return std::move(result.szOutput);
}

std::string CNetLab::szMachineState() const
{
    std::string szState =
        szReadFile("/proc/self/fd/" + std::to_string(m_MachineEtc.iGet()) + "/resolv.conf");
    for (const std::set<std::string>& names :
         {Names(m_MachineEtc, "resolv.conf"), Names(m_MachineRun, "dhclient"),
          Names(m_MachineLeases, "")}) {
        for (const std::string& szName : names) {
            szState += szName + '\n';
        }
    }
    return szState;
}

std::vector<pid_t> CNetLab::Programs() const
{
    const std::set<ino_t> networks = {Inode(m_ServerNetwork), Inode(m_Network)};
    std::vector<pid_t> programs;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        struct stat status = {};
        if (pid > 0 && pid != getpid() && stat((entry.path() / "ns/net").c_str(), &status) == 0 &&
            networks.count(status.st_ino) != 0) {
            programs.push_back(pid);
        }
    }
    return programs;
}

void CNetLab::EndPrograms()
{
    m_pServer.reset();
    bAwait([this] { // one that is just being started is found the next time
        const std::vector<pid_t> programs = Programs();
        for (const pid_t pid : programs) {
            kill(pid, SIGKILL);
        }
        return programs.empty();
    });
}
} // namespace TestSupport
