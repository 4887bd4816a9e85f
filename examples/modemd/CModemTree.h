/// @file
/// @brief The data of modemd: the serving cell, and who may call or text.
#pragma once

#include "../common/CTreeRoot.h"
#include "AtText.h"

#include <libQuorCore/libQuorCore.h>

#include <optional>
#include <string>

/**
 * @brief The tree that modemd serves and saves: "/db/cell", which only the modem changes, and
 *        "/db/callback".
 *
 * Threads: any; every function takes the lock.
 */
class CModemTree : public CTreeRoot
{
public:
    CModemTree();

    /// @name What the modem tells of the cell. An unknown measurement becomes null.
    /// @{
    void SetSignal(const signal_t& signal); ///< Stamps the measurement with the time, too.
    void SetRegistration(const registration_t& registration);
    void SetNetwork(const std::string& szDigits); ///< Country and network code: 5 or 6 digits.
    void ForgetCell();                            ///< There is no modem to tell of any.
    /// @}

    QuorCore::ustring CellBytes();     ///< @return The record of the cell, serialised.
    QuorCore::ustring CallbackBytes(); ///< @return The record of the callback service.

    /**
     * @brief Takes over values from a serialised CDMSrvCallback, all or none.
     *
     * The bits of its attributes are the sender's affair and are not taken over.
     *
     * @return False: it is no such record, or holds what is no phone number, or too many of them.
     */
    bool bReplaceCallback(QuorCore::socketFrame_t& frame);

    bool bAddNumber(const std::string& szNumber);    ///< @return False: no number, or no room.
    bool bRemoveNumber(const std::string& szNumber); ///< @return False: it is not there.

    bool bSmsAuthorized(const std::string& szNumber);
    bool bCallAuthorized(const std::string& szNumber);

private:
    bool bIsListed(const std::string& szNumber);

    QuorCore::CDMStatCellServing m_Cell{this, "cell"};
    QuorCore::CDMSrvCallback m_Callback{this, "callback"};
};
