/// @file
/// @brief Counts one up for a scope.
#pragma once

namespace QuorCore
{
/// Keeps a number one higher until the end of the scope.
template <class Count>
class CCounted
{
public:
    explicit CCounted(Count& iCount) : m_iCount(iCount) { ++m_iCount; }
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;
    ~CCounted() { --m_iCount; }

private:
    Count& m_iCount;
};
} // namespace QuorCore
