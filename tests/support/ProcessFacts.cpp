#include "support/ProcessFacts.h"

#include <filesystem>
#include <iterator>

namespace TestSupport
{
namespace
{
size_t nEntries(const char* pszDirectory)
{
    const std::filesystem::directory_iterator entries(pszDirectory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}
} // namespace

size_t nOpenDescriptors()
{
    return nEntries("/proc/self/fd") - 1; // the directory itself is open while it is listed
}

size_t nThreads()
{
    return nEntries("/proc/self/task");
}
} // namespace TestSupport
