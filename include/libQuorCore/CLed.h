/// @file
/// @brief One LED.
#pragma once

#include "libQuorCore/Export.h"

#include <string>

namespace QuorCore
{
/**
 * @brief Drives one LED by the kernel's files under "/sys/class/leds/".
 *
 * Threads: any; each operation opens its files anew. Errors: none is reported and none logged. A
 * file that cannot be opened makes the operation do nothing; what a LED's driver refuses has no
 * effect. Rests on the kernel's leds/leds-class, ledtrig-timer and ledtrig-pattern.
 */
class QUORCORE_API CLed
{
public:
    /// @param name  Directory of the LED with its closing "/"; taken as it is.
    explicit CLed(std::string name);
    virtual ~CLed();

    /// @brief Writes a text, as it is, to a file of the LED.
    void SetValue(const char* attribute, const char* text);
    void SetValue(const char* attribute, int value); ///< The same in decimal.

    /// @return The first character of a file; empty when it cannot be read or is empty.
    std::string szGetValue(const char* attribute) const;

    /// @return The first character of a file as a digit, 0 when it is none; -1 as above.
    int iGetValue(const char* attribute) const;

    void SetBlinking(int onMs, int offMs); ///< Lets the kernel blink; times in ms.

    /**
     * @brief Lets the kernel repeat a burst of flashes, 50 ms each, 300 ms apart, and a pause of
     *        2 s.
     * @param count  Flashes of a burst; below 1 the LED is switched off. The kernel takes one page
     *               of text, that is, about 175 of them.
     */
    void SetFlashing(int count);

    /**
     * @brief Switches the LED on or off: whatever the value, 1 or 0 is written. A LED that can be
     *        dimmed is at its darkest then, which is meant: this is about on and off.
     * @param value         0: off.
     * @param resetTrigger  First end what SetBlinking() and SetFlashing() began.
     */
    void SetBrightness(int value, bool resetTrigger);

    /// @return The first digit of the brightness, so 2 for 255: anything but 0 is on. -1 when it
    ///         cannot be read.
    int iGetBrightness() const;

    void ToggleBrightness(); ///< Off if it is on, and back; what blinks or flashes is ended.

protected:
    std::string m_szName; ///< Directory of the LED with its closing "/".
};
} // namespace QuorCore
