#include "libQuorCore/CDMStatCellServing.h"

namespace QuorCore
{
namespace
{
constexpr int32_t kNotMeasured = -999;
} // namespace

const char* const _apszTechnoType[8] = {"GPRS",  "EDGE",        "UMTS",  "HSDPA",
                                        "HSUPA", "HSDPA/HSUPA", "HSPA+", "LTE"};

CDMStatCellServing::CDMStatCellServing(CObject* pParent, const char* pszLabel)
    : CDMObject(pParent, pszLabel), m_Techno(this, "techno", _apszTechnoType[0]),
      m_Arfcn(this, "arfcn"), m_Rssi(this, "rssi"), m_Ber(this, "ber"),
      m_RxLevel(this, "rxLevel", kNotMeasured, kNotMeasured, 0, kNotMeasured),
      m_RxQual(this, "rxQual"), m_Rscp(this, "rscp"), m_Ecno(this, "ecno"), m_Rsrp(this, "rsrp"),
      m_SRxLevel(this, "sRxLevel"), m_Ci(this, "ci"), m_Lac(this, "lac"), m_Mcc(this, "mcc"),
      m_Mnc(this, "mnc"), m_Ta(this, "ta"), m_DateMes(this, "dateMes")
{
}
} // namespace QuorCore
