#include "libQuorCore/atErrors.h"

#include <algorithm>
#include <iterator>
#include <strings.h>

namespace QuorCore
{
namespace
{
struct atError_t {
    int iError;
    const char* pszText;
};

constexpr atError_t kCmeErrors[] = {
    {0, "phone failure"},
    {1, "no connection to phone"},
    {2, "phone-adaptor link reserved"},
    {3, "operation not allowed"},
    {4, "operation not supported"},
    {5, "PH-SIM PIN required"},
    {6, "PH-FSIM PIN required"},
    {7, "PH-FSIM PUK required"},
    {10, "SIM not inserted"},
    {11, "SIM PIN required"},
    {12, "SIM PUK required"},
    {13, "SIM failure"},
    {14, "SIM busy"},
    {15, "SIM wrong"},
    {16, "incorrect password"},
    {17, "SIM PIN2 required"},
    {18, "SIM PUK2 required"},
    {20, "memory full"},
    {21, "invalid index"},
    {22, "not found"},
    {23, "memory failure"},
    {24, "text string too long"},
    {25, "invalid characters in text string"},
    {26, "dial string too long"},
    {27, "invalid characters in dial string"},
    {30, "no network service"},
    {31, "network timeout"},
    {32, "network not allowed - emergency calls only"},
    {40, "network personalization PIN required"},
    {41, "network personalization PUK required"},
    {42, "network subset personalization PIN required"},
    {43, "network subset personalization PUK required"},
    {44, "service provider personalization PIN required"},
    {45, "service provider personalization PUK required"},
    {46, "corporate personalization PIN required"},
    {47, "corporate personalization PUK required"},
    {48, "hidden key required"},
    {49, "EAP method not supported"},
    {50, "incorrect parameters"},
    {51, "command implemented but currently disabled"},
    {52, "command aborted by user"},
    {53, "not attached to network due to MT functionality restrictions"},
    {54, "modem not allowed - MT restricted to emergency calls only"},
    {55, "operation not allowed because of MT functionality restrictions"},
    {56, "fixed dial number only allowed - called number is not a fixed dial number"},
    {57, "temporarily out of service due to other MT usage"},
    {58, "language/alphabet not supported"},
    {59, "unexpected data value"},
    {60, "system failure"},
    {61, "data missing"},
    {62, "call barred"},
    {63, "message waiting indication subscription failure"},
    {100, "unknown"},
    {103, "illegal MS"},
    {106, "illegal ME"},
    {107, "GPRS services not allowed"},
    {108, "GPRS services and non-GPRS services not allowed"},
    {111, "PLMN not allowed"},
    {112, "location area not allowed"},
    {113, "roaming not allowed in this location area"},
    {114, "GPRS services not allowed in this PLMN"},
    {115, "no suitable cells in location area"},
    {122, "congestion"},
    {126, "insufficient resources"},
    {127, "missing or unknown APN"},
    {128, "unknown PDP address or PDP type"},
    {129, "user authentication failed"},
    {130, "activation rejected by GGSN, serving GW or PDN GW"},
    {131, "activation rejected, unspecified"},
    {132, "service option not supported"},
    {133, "requested service option not subscribed"},
    {134, "service option temporarily out of order"},
    {148, "unspecified GPRS error"},
    {149, "PDP authentication failure"},
    {150, "invalid mobile class"},
};

constexpr atError_t kCmsErrors[] = {
    {1, "unassigned (unallocated) number"},
    {8, "operator determined barring"},
    {10, "call barred"},
    {21, "short message transfer rejected"},
    {27, "destination out of service"},
    {28, "unidentified subscriber"},
    {29, "facility rejected"},
    {30, "unknown subscriber"},
    {38, "network out of order"},
    {41, "temporary failure"},
    {42, "congestion"},
    {47, "resources unavailable, unspecified"},
    {50, "requested facility not subscribed"},
    {69, "requested facility not implemented"},
    {81, "invalid short message transfer reference value"},
    {95, "invalid message, unspecified"},
    {96, "invalid mandatory information"},
    {97, "message type non-existent or not implemented"},
    {98, "message not compatible with short message protocol state"},
    {99, "information element non-existent or not implemented"},
    {111, "protocol error, unspecified"},
    {127, "interworking, unspecified"},
    {128, "telematic interworking not supported"},
    {129, "short message type 0 not supported"},
    {130, "cannot replace short message"},
    {143, "unspecified TP-PID error"},
    {144, "data coding scheme (alphabet) not supported"},
    {145, "message class not supported"},
    {159, "unspecified TP-DCS error"},
    {160, "command cannot be actioned"},
    {161, "command unsupported"},
    {175, "unspecified TP-Command error"},
    {176, "TPDU not supported"},
    {192, "SC busy"},
    {193, "no SC subscription"},
    {194, "SC system failure"},
    {195, "invalid SME address"},
    {196, "destination SME barred"},
    {197, "SM rejected - duplicate SM"},
    {198, "TP-VPF not supported"},
    {199, "TP-VP not supported"},
    {208, "(U)SIM SMS storage full"},
    {209, "no SMS storage capability in (U)SIM"},
    {210, "error in MS"},
    {211, "memory capacity exceeded"},
    {212, "(U)SIM application toolkit busy"},
    {213, "(U)SIM data download error"},
    {255, "unspecified error cause"},
    {300, "ME failure"},
    {301, "SMS service of ME reserved"},
    {302, "operation not allowed"},
    {303, "operation not supported"},
    {304, "invalid PDU mode parameter"},
    {305, "invalid text mode parameter"},
    {310, "(U)SIM not inserted"},
    {311, "(U)SIM PIN required"},
    {312, "PH-(U)SIM PIN required"},
    {313, "(U)SIM failure"},
    {314, "(U)SIM busy"},
    {315, "(U)SIM wrong"},
    {316, "(U)SIM PUK required"},
    {317, "(U)SIM PIN2 required"},
    {318, "(U)SIM PUK2 required"},
    {320, "memory failure"},
    {321, "invalid memory index"},
    {322, "memory full"},
    {330, "SMSC address unknown"},
    {331, "no network service"},
    {332, "network timeout"},
    {340, "no +CNMA acknowledgement expected"},
    {500, "unknown error"},
};

template <size_t kCount>
const char* pszFind(const atError_t (&table)[kCount], int iError)
{
    const auto isBefore = [](const atError_t& entry, int iWanted) {
        return entry.iError < iWanted;
    };
    const auto* const pFound =
        std::lower_bound(std::begin(table), std::end(table), iError, isBefore);
    return pFound != std::end(table) && pFound->iError == iError ? pFound->pszText : nullptr;
}

template <size_t kCount>
int iFind(const atError_t (&table)[kCount], const char* pszText)
{
    const auto isIt = [pszText](const atError_t& entry) {
        return pszText != nullptr && strcasecmp(entry.pszText, pszText) == 0;
    };
    const auto* const pFound = std::find_if(std::begin(table), std::end(table), isIt);
    return pFound != std::end(table) ? pFound->iError : -1;
}
} // namespace

const char* pszCmeError(int iError)
{
    return pszFind(kCmeErrors, iError);
}

const char* pszCmsError(int iError)
{
    return pszFind(kCmsErrors, iError);
}

int iCmeError(const char* pszText)
{
    return iFind(kCmeErrors, pszText);
}

int iCmsError(const char* pszText)
{
    return iFind(kCmsErrors, pszText);
}
} // namespace QuorCore
