/// @file
/// @brief A callback that hands a message to a member function.
#pragma once

#include "libQuorCore/CInvokeCallback.h"
#include "libQuorCore/CObject.h"

namespace QuorCore
{
/**
 * @brief Calls a member function of an object with the message that is dispatched.
 *
 * Ownership: the object is not owned and must outlive the callback. A pointer to a virtual member
 * calls the override of the object's dynamic type.
 */
template <class T>
class CSlotCallback : public CInvokeCallback
{
public:
    using Callback = void (T::*)(CMsg*);

    CSlotCallback(T* pObject, Callback method) : m_pObject(pObject), m_method(method) {}

    /// @param pData  A CMsg, borrowed for the call.
    void invoke(void* pData) const override { (m_pObject->*m_method)(static_cast<CMsg*>(pData)); }

private:
    T* m_pObject;
    Callback m_method;
};
} // namespace QuorCore
