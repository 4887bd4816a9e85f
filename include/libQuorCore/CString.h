/// @file
/// @brief An attribute that is a text.
#pragma once

#include "libQuorCore/CObjectData.h"
#include "libQuorCore/Export.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QuorCore
{
/**
 * @brief A text of any bytes, with an initial value and bounds on its length in bytes.
 *
 * Binary: the attribute byte, the length in 16 bits, the bytes. Nothing at all of a masked text
 * when the stream is public. A text above 65535 bytes is written with its length cut to 16 bits and
 * all of its bytes: such a stream cannot be read back. JSON: a string; bytes that are no UTF-8 do
 * not come back as they were.
 *
 * Threads, errors: as CObjectData. A null text is taken as an empty one.
 */
class QUORCORE_API CString : public CObjectData
{
public:
    static constexpr int kNoLimit = -1; ///< As greatest length: none.

    /// Initial and current value @p szInit, any length. Null without a text: the attribute is null.
    CString(CObject* pParent, const char* szLabel, const char* szInit);
    /// @param iSizeMin  Least length in bytes.
    /// @param iSizeMax  Greatest length in bytes, negative: none.
    /// @param szVal     Current value; the attribute is null when this is.
    CString(CObject* pParent, const char* szLabel, const char* szInit, int iSizeMin, int iSizeMax,
            const char* szVal);

    void Reset() override; ///< The initial value; modified in any case.
    long iSerialize(CSerialize& stream) override;

    /**
     * @brief Tests the length of the candidate of a ready stream, else of the current value.
     *
     * A text passes when its length reaches both bounds: also the greatest one is compared as "at
     * least". This is meant: the pass is for texts of one fixed length, as identifiers are.
     *
     * @param bReset  Whether a text that fails gets its initial value and passes: the opposite of
     *                what a number does. Meant as well.
     * @return 0, -2200 too short, or the stream's result.
     */
    long iCheckStatus(CSerialize& stream, bool bReset) override;

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    /// Stores the text without marking the attribute modified; under eNotify the flag is lowered
    /// and nothing stored. @return 0.
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    /// A string is stored, and the attribute is not null then; all else changes nothing.
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    /**
     * @brief Checks the member named by the label.
     *
     * It must be a string, or JSON null for an optional attribute; its length must be within the
     * bounds, both inclusive. A restricted attribute refuses its current value, too.
     *
     * @param bReset  Whether a text that fails gets its initial value, and 0 is returned.
     * @return 0 or -1.
     */
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    /// The same for an element, where JSON null changes nothing and is accepted.
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;

    const std::string& szGetVal() const { return m_Val; }
    int iGetSize() const { return static_cast<int>(m_Val.size()); } ///< In bytes.
    /// Another text than the current one makes the attribute modified and not null; the current
    /// one changes nothing.
    void SetVal(std::string szVal);
    void SetVal(const char* szVal);
    /// Cuts the text, or fills it up with NULs, as SetVal(); a negative size changes nothing.
    void Resize(int iSize);
    /// @return The pieces between the separators, empty ones included; one at least.
    std::vector<std::string> vSplitString(char cSeparator) const;

protected:
    std::string m_Val;
    std::string m_ValInit;
    int m_SizeMin;
    int m_SizeMax;

private:
    bool bIsHidden(const CSerialize& stream) const;
    bool bIsHidden(const CContextJson& context) const;
    long iPushText(CSerialize& stream);
    long iPopValue(CSerialize& stream);
    static long iPopText(CSerialize& stream, std::string& szText);
    static long iPopCharacters(CSerialize& stream, uint16_t iLength, std::string& szText);
    long iCheckMember(CContextJson& context, const Json::Value& member, std::string* pszError,
                      bool bReset, bool bElement);
};
} // namespace QuorCore
