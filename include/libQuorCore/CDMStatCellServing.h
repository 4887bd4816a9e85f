/// @file
/// @brief What the modem measured of the cell that serves it.
#pragma once

#include "libQuorCore/CDMType.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/// The texts that "techno" may hold.
extern QUORCORE_API const char* const _apszTechnoType[8];

/**
 * @brief The serving cell; the labels are the keys of the JSON.
 *
 * The unsigned measurements are null until they are set. The received level is -999, its least
 * value, as long as it was not measured.
 */
class QUORCORE_API CDMStatCellServing : public CDMObject
{
public:
    CDMStatCellServing(CObject* pParent, const char* pszLabel);

    CDMString m_Techno;    ///< "techno": one of _apszTechnoType.
    CDMUInt m_Arfcn;       ///< "arfcn": channel number.
    CDMUInt m_Rssi;        ///< "rssi": signal strength, as the modem counts it.
    CDMUInt m_Ber;         ///< "ber": bit error rate, as the modem counts it.
    CDMInt m_RxLevel;      ///< "rxLevel": received level in dBm, -999 to 0.
    CDMUInt m_RxQual;      ///< "rxQual": received quality.
    CDMUInt m_Rscp;        ///< "rscp": received signal code power.
    CDMUInt m_Ecno;        ///< "ecno": energy per chip over noise.
    CDMUInt m_Rsrp;        ///< "rsrp": reference signal received power.
    CDMUInt m_SRxLevel;    ///< "sRxLevel": cell selection level.
    CDMUInt m_Ci;          ///< "ci": cell identity.
    CDMUInt m_Lac;         ///< "lac": location area code.
    CDMUInt m_Mcc;         ///< "mcc": mobile country code.
    CDMUInt m_Mnc;         ///< "mnc": mobile network code.
    CDMUInt m_Ta;          ///< "ta": timing advance.
    CDMDateTime m_DateMes; ///< "dateMes": time of the measurement.
};
} // namespace QuorCore
