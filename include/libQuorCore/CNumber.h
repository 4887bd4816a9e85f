/// @file
/// @brief An attribute that is a number or a boolean.
#pragma once

#include "libQuorCore/CObjectData.h"
#include "libQuorCore/Export.h"

#include <string>

namespace QuorCore
{
/// What a check pass returns for a value out of its bounds.
constexpr long kOutOfBounds = -2200;

/**
 * @brief A number with bounds and an initial value, for T = bool, short, unsigned short, int and
 *        unsigned int.
 *
 * Binary: the attribute byte, then the value in sizeof(T) bytes. JSON: a number, or a boolean for
 * bool. Bounds are tested by the checks alone: neither SetVal() nor reading refuses a value.
 *
 * A value is changed by SetVal(), which all operators and iInc(), iDecr(), iAdd() go through:
 * another value than the current one makes the attribute modified and not null; the current one
 * changes nothing at all, not even of an attribute that is null.
 *
 * Threads, errors: as CObjectData. Arithmetic is done in 64 bits and cut to T.
 */
template <class T>
class QUORCORE_API CNumber : public CObjectData
{
public:
    /// Null, 0, with the bounds of T.
    CNumber(CObject* pParent, const char* szLabel);
    /// Not null. The order is initial value, least, greatest, current value.
    CNumber(CObject* pParent, const char* szLabel, T init, T min, T max, T val);

    void Reset() override; ///< The initial value; modified in any case.
    long iSerialize(CSerialize& stream) override;

    /**
     * @brief Tests the candidate of a ready stream, else the current value, against the bounds.
     * @param bReset  Whether a number that passes gets its initial value: the opposite of what a
     *                text does. This is meant; a pass with it re-initialises a tree of good values.
     * @return 0, -2200 out of bounds, or the stream's result.
     */
    long iCheckStatus(CSerialize& stream, bool bReset) override;

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    /// Under eNotify the modified flag is lowered when the member is there. @return 0.
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    /// JSON null makes it null. Else booleans and whole numbers are taken, cut to T; of all else
    /// the value stays.
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    /**
     * @brief Checks the member named by the label.
     *
     * The candidate may be a boolean or a number, of which the fraction is cut; JSON null only for
     * an optional attribute. The current value is always accepted, of a read-only attribute too: a
     * client may send back a whole document that it has read. Another one is refused for a
     * restricted attribute, and beyond the bounds, which are compared in 64 bits (but for bool).
     *
     * @return 0; -1 wrong type or null; 403 restricted or out of bounds.
     */
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    /// The same for an element, where JSON null is also accepted of an attribute that is null.
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;

    T iGetVal() const { return m_Val; }
    void SetVal(T val);
    T iGetValInit() const { return m_ValInit; }
    void SetValInit(T val) { m_ValInit = val; } ///< Leaves the current value alone.

    T iInc();      ///< Adds 1. @return The new value.
    T iDecr();     ///< Subtracts 1. @return The new value.
    T iAdd(T val); ///< Adds. @return The new value.

    CNumber& operator=(T val);
    CNumber& operator=(const CNumber& other); ///< Takes over the value, and nothing else.
    CNumber& operator+=(T val);
    CNumber& operator+=(const CNumber& other) { return *this += other.m_Val; }
    CNumber& operator-=(T val);
    CNumber& operator-=(const CNumber& other) { return *this -= other.m_Val; }
    CNumber& operator/=(T val); ///< By 0: nothing changes, and a line is logged at level 3.
    CNumber& operator/=(const CNumber& other) { return *this /= other.m_Val; }
    bool operator==(T val) const { return m_Val == val; }
    bool operator!=(T val) const { return m_Val != val; }

protected:
    T m_ValInit;
    T m_Val;
    T m_Min;
    T m_Max;

private:
    long iPushBytes(CSerialize& stream);
    long iPopBytes(CSerialize& stream);
    long iCheckMember(CContextJson& context, const Json::Value* pMember, std::string* pszError,
                      bool bReset);
};

extern template class CNumber<bool>;
extern template class CNumber<short>;
extern template class CNumber<unsigned short>;
extern template class CNumber<int>;
extern template class CNumber<unsigned int>;
} // namespace QuorCore
