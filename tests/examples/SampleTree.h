/// @file
/// @brief A tree as a daemon has one, for the tests of what the examples share.
#pragma once

#include "../../examples/common/CTreeRoot.h"

namespace TestSupport
{
/// @brief Settings with bounds, and a number that no request may change.
class CSampleSettings : public QuorCore::CDMObject
{
public:
    explicit CSampleSettings(QuorCore::CObject* pParent) : CDMObject(pParent, "settings")
    {
        m_Count.SetReadOnly(true);
        m_Secret.SetAttributeMasked(true);
    }

    QuorCore::CDMString m_Name{this, "name", "first", 1, 8, "first"};
    QuorCore::CDMUInt m_Level{this, "level", 5, 0, 10, 5};
    QuorCore::CDMUInt m_Count{this, "count", 0, 0, 1000000, 0};
    QuorCore::CDMString m_Secret{this, "secret", "pin"};
};

/// @brief Settings, the callback service, and a record that no request may change.
class CSampleTree : public CTreeRoot
{
public:
    CSampleTree()
    {
        m_Callback.m_WhiteList.SetAttributeCanDelete(true);
        m_Cell.SetReadOnly(true);
    }

    CSampleSettings m_Settings{this};
    QuorCore::CDMSrvCallback m_Callback{this, "callback"};
    QuorCore::CDMStatCellServing m_Cell{this, "cell"};
};
} // namespace TestSupport
