/// @file
/// @brief The one interface through which the library calls user code.
#pragma once

#include "libQuorCore/Export.h"

namespace QuorCore
{
/**
 * @brief Something that can be called with one untyped argument.
 *
 * Ownership: handed to a callback map or a file watcher, a callback belongs to it.
 */
class QUORCORE_API CInvokeCallback
{
public:
    CInvokeCallback() = default;
    CInvokeCallback(const CInvokeCallback&) = default;
    CInvokeCallback& operator=(const CInvokeCallback&) = default;
    virtual ~CInvokeCallback();

    /// @param pData  What the caller dispatches: a CMsg, a frame, ...; borrowed for the call.
    virtual void invoke(void* pData) const = 0;
};
} // namespace QuorCore
