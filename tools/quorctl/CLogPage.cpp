#include "CLogPage.h"

#include "DataText.h"
#include "Failure.h"
#include "Number.h"

#include <climits>
#include <string_view>
#include <syslog.h>

namespace QuorCtl
{
namespace
{
/// Reads a page from its front. What is not there is either cut off or never was.
class CPageReader
{
public:
    explicit CPageReader(std::string_view rest) : m_rest(rest) {}

    bool bAtEnd() const { return m_rest.empty(); }

    /// Whether @p expected comes next; only then is it taken. A page that ends within it is cut.
    bool bTake(std::string_view expected)
    {
        const std::string_view next = m_rest.substr(0, expected.size());
        if (next.size() < expected.size() && next == expected.substr(0, next.size())) {
            Fail(true);
        }
        const bool bThere = next == expected;
        m_rest.remove_prefix(bThere ? expected.size() : 0);
        return bThere;
    }

    void Take(std::string_view expected)
    {
        if (!bTake(expected)) {
            Fail(false);
        }
    }

    /// Takes all before @p end, and @p end.
    std::string szTakeUpTo(std::string_view end)
    {
        const size_t length = m_rest.find(end);
        if (length == std::string_view::npos) {
            Fail(true);
        }
        const std::string szTaken(m_rest.substr(0, length));
        m_rest.remove_prefix(length + end.size());
        return szTaken;
    }

    int iTakeNumberUpTo(std::string_view end)
    {
        const std::optional<int64_t> number = ParseNumber(szTakeUpTo(end), 0, INT_MAX);
        if (!number) {
            Fail(false);
        }
        return static_cast<int>(*number);
    }

    [[noreturn]] void Fail(bool bCut) const
    {
        throw CRefusal(bCut ? "the daemon's log page is cut"
                            : "the daemon's log page is none that this program knows");
    }

private:
    std::string_view m_rest;
};

// The choice of a row; the level that is marked, or -1.
int iTakeLevels(CPageReader& page)
{
    constexpr const char* kNames[] = {"emergency", "alert",  "critical", "error",
                                      "warning",   "notice", "info",     "debug"};
    int iSelected = -1;
    for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
        const std::string szNumber = std::to_string(iLevel);
        page.Take("<option value=\"" + szNumber + '"');
        if (page.bTake(" selected")) {
            iSelected = iLevel;
        }
        page.Take('>' + szNumber + '-' + kNames[iLevel] + "</option>");
    }
    return iSelected;
}

// A row without its "<tr><td>", which has been taken.
LogThread TakeThread(CPageReader& page)
{
    LogThread thread;
    thread.iIndex = page.iTakeNumberUpTo("</td><td>");
    thread.szLabel = page.szTakeUpTo("</td><td><select name=min_" + std::to_string(thread.iIndex) +
                                     '>'); // with its own index: a label may look like markup
    thread.iLevel = iTakeLevels(page);
    page.Take("</select></td>\t\n");
    return thread;
}
} // namespace

CLogPage::CLogPage(const std::string& szData)
{
    const std::string szPage = szUpToZero(szData);
    CPageReader page(szPage);
    page.Take("<!DOCTYPE html><html><head><title>Log ctrl</title></head><body>\n"
              "<h2>Log control : ");
    m_szDaemon = page.szTakeUpTo("</h2>\nNumber of sources: ");
    m_sources = static_cast<size_t>(page.iTakeNumberUpTo("<br>\n"));
    page.Take("<form name=\"logform\" method=\"get\" action=\"");
    page.szTakeUpTo("\">\n<table border=\"1\">\n"
                    "<tr><th>Id</th><th>Name</th><th>Min Level</th></tr>\n");
    while (page.bTake("<tr><td>")) {
        m_threads.push_back(TakeThread(page));
        if (m_threads.back().iIndex != static_cast<int>(m_threads.size()) - 1) {
            page.Fail(false);
        }
    }
    page.Take("</table>\n<input type=\"submit\" value=\"Apply\">\n</body></html>\n");
    if (!page.bAtEnd()) {
        page.Fail(false);
    }
}
} // namespace QuorCtl
