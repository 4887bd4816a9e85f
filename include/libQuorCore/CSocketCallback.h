/// @file
/// @brief A callback that hands a received frame to a member function.
#pragma once

#include "libQuorCore/CInvokeCallback.h"
#include "libQuorCore/socketFrame.h"

namespace QuorCore
{
/**
 * @brief Calls a member function of an endpoint with the frame that is dispatched.
 *
 * A method of a class derived from CSocketBase is given as
 * `static_cast<CSocketCallback<CSocketBase>::Callback>(&CDaemonLink::OnCmdStart)`, since a pointer
 * to a member of a derived class does not convert by itself.
 *
 * Threads: called on the endpoint's own thread, under the lock of its callback map.
 * Ownership: the object is not owned and must outlive the callback, which a map owns.
 */
template <class T>
class CSocketCallback : public CInvokeCallback
{
public:
    using Callback = void (T::*)(socketFrame_t*);

    CSocketCallback(T* pObject, Callback method) : m_pObject(pObject), m_method(method) {}
    CSocketCallback(const CSocketCallback&) = default;
    CSocketCallback& operator=(const CSocketCallback&) = default;

    /// @param pData  A socketFrame_t, borrowed for the call.
    void invoke(void* pData) const override
    {
        (m_pObject->*m_method)(static_cast<socketFrame_t*>(pData));
    }

private:
    T* m_pObject;
    Callback m_method;
};
} // namespace QuorCore
