#include "support/CSysClass.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr char kSysClass[] = "/sys/class";

void Check(bool bDone, const char* szCall)
{
    if (!bDone) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
}

const char* szVerb(uint32_t iMask)
{
    return (iMask & IN_OPEN) != 0 ? "open " : (iMask & IN_MODIFY) != 0 ? "write " : "close ";
}
} // namespace

CSysClass::CSysClass()
{
    Check(mount("tmpfs", kSysClass, "tmpfs", MS_NOSUID, "mode=755") == 0, "mount over /sys/class");
}

CSysClass::~CSysClass()
{
    umount2(kSysClass, MNT_DETACH);
}

std::string CSysClass::szMakeDirectory(const std::string& szName)
{
    const std::string szPath = std::string(kSysClass) + '/' + szName + '/';
    std::filesystem::create_directories(szPath);
    return szPath;
}

CFileJournal::CFileJournal(const std::string& szDirectory)
    : m_Inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    Check(inotify_add_watch(m_Inotify.iGet(), szDirectory.c_str(),
                            IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE) != -1,
          "inotify_add_watch");
}

std::vector<std::string> CFileJournal::Take()
{
    std::vector<std::string> entries;
    alignas(inotify_event) char aEvents[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
    ssize_t lSize = 0;
    while ((lSize = read(m_Inotify.iGet(), aEvents, sizeof(aEvents))) > 0) {
        for (ssize_t lPos = 0; lPos < lSize;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(aEvents + lPos);
            if ((event.mask & IN_ISDIR) == 0 && event.len > 0) {
                entries.push_back(std::string(szVerb(event.mask)) + event.name);
            }
            lPos += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
        }
    }
    return entries;
}
} // namespace TestSupport
