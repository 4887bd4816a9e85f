#include "support/ProcessFacts.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace TestSupport
{
namespace
{
size_t nEntries(const char* pszDirectory)
{
    const std::filesystem::directory_iterator entries(pszDirectory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

/// By the flags of a thread's line in proc(5), which stand behind its name in parentheses and six
/// columns.
bool bIsEnding(const std::filesystem::path& thread)
{
    constexpr unsigned kExiting = 0x4; // PF_EXITING of the kernel
    std::ifstream file(thread / "stat");
    std::string szSkipped;
    unsigned iFlags = kExiting; // of one that is gone altogether by now
    std::getline(file, szSkipped, ')');
    for (int i = 0; i < 6; ++i) {
        file >> szSkipped;
    }
    file >> iFlags;
    return !file || (iFlags & kExiting) != 0;
}
} // namespace

size_t nOpenDescriptors()
{
    return nEntries("/proc/self/fd") - 1; // the directory itself is open while it is listed
}

size_t nThreads()
{
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<size_t>(std::count_if(begin(threads), end(threads), [](const auto& thread) {
        return !bIsEnding(thread.path());
    }));
}
} // namespace TestSupport
