/// @file
/// @brief Keeps a value for a scope.
#pragma once

namespace QuorCore
{
/// Keeps a value in a slot for a scope, and nothing after it.
template <class Slot, class Value>
class CForScope
{
public:
    CForScope(Slot& slot, Value value) : m_slot(slot) { m_slot = value; }
    CForScope(const CForScope&) = delete;
    CForScope& operator=(const CForScope&) = delete;
    ~CForScope() { m_slot = Value{}; }

private:
    Slot& m_slot;
};
} // namespace QuorCore
