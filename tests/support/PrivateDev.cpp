#include "support/PrivateDev.h"

#include "support/Files.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
namespace
{
void Check(int iResult, const std::string& szCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
}

// Who may not mount may do so in a user namespace. The caller stays who it is in there: tests that
// ask for the user must not be told a story.
void EnterNamespaces()
{
    if (unshare(CLONE_NEWNS) == 0) {
        return;
    }
    const std::string szUser = std::to_string(geteuid());
    const std::string szGroup = std::to_string(getegid());
    Check(unshare(CLONE_NEWUSER | CLONE_NEWNS),
          "neither root nor allowed user namespaces, unshare(CLONE_NEWUSER | CLONE_NEWNS)");
    WriteFile("/proc/self/setgroups", "deny"); // else the kernel refuses the gid_map
    WriteFile("/proc/self/uid_map", szUser + ' ' + szUser + " 1");
    WriteFile("/proc/self/gid_map", szGroup + ' ' + szGroup + " 1");
}

// Handles to what is taken over from the old /dev: its names are gone once the new one covers it.
std::map<std::string, int> OpenOldEntries()
{
    std::map<std::string, int> entries;
    for (const char* pszName :
         {"null", "zero", "full", "random", "urandom", "tty", "console", "pts"}) {
        const int iFd = open(("/dev/" + std::string(pszName)).c_str(), O_PATH | O_CLOEXEC);
        if (iFd != -1) { // a container may lack console or tty
            entries[pszName] = iFd;
        }
    }
    return entries;
}

void BindIntoNewDev(const std::string& szName, int iFd)
{
    const std::string szTarget = "/dev/" + szName;
    struct stat status = {};
    Check(fstat(iFd, &status), "fstat " + szTarget);
    if (S_ISDIR(status.st_mode)) {
        Check(mkdir(szTarget.c_str(), 0755), "mkdir " + szTarget);
    } else {
        Check(mknod(szTarget.c_str(), S_IFREG | 0644, 0), "mknod " + szTarget);
    }
    const std::string szSource = "/proc/self/fd/" + std::to_string(iFd);
    Check(mount(szSource.c_str(), szTarget.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "mount --rbind " + szTarget);
}

// Terminals of this test's own: every mount is another instance (mount(8), devpts). Else the number
// of one that was unplugged would be the next test's, and who waits for the first to come back
// would open the other's. The machine's are bound where the kernel refuses that.
void MountOwnTerminals()
{
    mkdir("/dev/pts", 0755); // the machine may have none
    mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "ptmxmode=0666,mode=0620");
}

void AddLinks()
{
    const std::map<std::string, std::string> links = {{"fd", "/proc/self/fd"},
                                                      {"stdin", "/proc/self/fd/0"},
                                                      {"stdout", "/proc/self/fd/1"},
                                                      {"stderr", "/proc/self/fd/2"},
                                                      {"ptmx", "pts/ptmx"}};
    for (const auto& [szName, szTarget] : links) {
        Check(symlink(szTarget.c_str(), ("/dev/" + szName).c_str()), "symlink /dev/" + szName);
    }
}
} // namespace

void EnterPrivateDev()
{
    EnterNamespaces();
    Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount --make-rprivate /");
    const std::map<std::string, int> oldEntries = OpenOldEntries();
    Check(mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755"), "mount -t tmpfs /dev");
    for (const auto& [szName, iFd] : oldEntries) {
        BindIntoNewDev(szName, iFd);
        close(iFd);
    }
    MountOwnTerminals();
    AddLinks();
    Check(mkdir("/dev/shm", 0777), "mkdir /dev/shm");
    Check(chmod("/dev/shm", 01777), "chmod /dev/shm");
}
} // namespace TestSupport
