/// @file
/// @brief One general-purpose input/output line.
#pragma once

#include "libQuorCore/Export.h"

#include <iosfwd>
#include <string>

namespace QuorCore
{
/**
 * @brief Drives one line by the kernel's files under "/sys/class/gpio/".
 *
 * Exports the line, keeps its four attribute files open, and reads and writes them as text; waits
 * for an edge with poll(2).
 *
 * Threads: one at a time for an object. Ownership: owns the descriptors of the files.
 * Errors: nothing throws or returns an error but where it is said; a failure is logged (level 3),
 * and a read that failed gives 0. As long as the line is not exported the operations log that and
 * do nothing. Rests on the kernel's ABI/obsolete/sysfs-gpio.
 */
class QUORCORE_API CGpio
{
public:
    /// What a line does; the texts of the file are "in", "out", "low" and "high".
    enum EDirection : int {
        IN = 0,
        OUT = 1,
        LOW = 2,  ///< An output that begins low; reads back as OUT.
        HIGH = 3, ///< An output that begins high; reads back as OUT.
    };

    /// Which edges of an input are an event; "none", "rising", "falling" and "both".
    enum EEdge : int { NONE = 0, RISING = 1, FALLING = 2, BOTH = 3 };

    /// The files of a line; "value", "direction", "edge" and "active_low".
    enum EFile : int {
        VALUE = 0,
        DIRECTION = 1,
        EDGE = 2,
        ACTIVE_LOW = 3,
        MAX_FD = 4, ///< Number of files.
    };

    /// @param number  The kernel's number of the line. Nothing is opened yet.
    explicit CGpio(int number);
    CGpio(const CGpio&) = delete;
    CGpio& operator=(const CGpio&) = delete;
    template <class T>
    CGpio& operator=(T*) = delete; ///< A pointer is not meant to become true.
    ~CGpio();                      ///< Closes the files; the line stays exported.

    /// @brief Asks the kernel for the line's files.
    /// @return Whether the kernel could be asked; a number that it refuses shows when the files are
    ///         opened.
    bool bExport();

    void UnExport(); ///< Gives the line back to the kernel. The files stay open, and useless.

    /**
     * @brief Exports the line unless it is, opens its files and sets it up.
     *
     * @param dir        IN leaves the direction as it is: a line that is to be an input is one from
     *                   the start, and one that was set up as an output must not change unasked.
     *                   Others are written, and the edge becomes NONE.
     * @param activeLow  Whether the levels count inverted; false leaves the setting as it is.
     * @param edge       For IN: which edges are an event, NONE to leave that as it is. An event
     * that was pending is cleared.
     */
    void init(EDirection dir, bool activeLow, EEdge edge);

    /// @param value  The level to set; only looked at for OUT.
    void setDirection(EDirection dir, int value);

    /// @return The direction; IN when it could not be read, also when the line is not exported.
    EDirection getDirection() const;

    void setValue(int value); ///< 0 is low, all else high. Logged and left alone for an input.
    int getValue() const;     ///< @return The level, 0 or 1.
    void toggleValue();       ///< Sets an output to the other level.

    void setEdge(EEdge edge); ///< For an input; does nothing for an output.
    EEdge getEdge() const;

    void setActiveLow(bool activeLow);
    bool getActiveLow() const;

    CGpio& operator=(int value);  ///< setValue().
    CGpio& operator=(bool value); ///< setValue() with 0 or 1.

    /**
     * @brief Waits until the line is high; at once if it is.
     *
     * The edges that count are those that init() or setEdge() chose. A signal that the thread
     * handles ends the wait early, as a failure that is logged.
     *
     * @param timeoutMs  Limit in ms; negative: none, and then the thread can only be cancelled.
     * @param value      Receives the level after an event; null for none. Untouched when the line
     *                   was high at once, and without an event.
     * @return Whether the level is 1. A line that is not exported: false, after a second.
     */
    bool bWait4Edge(int timeoutMs, int* value);

    /// @return A duplicate of a file's descriptor, 1 or above and close-on-exec, which the caller
    ///         closes; -1 when there is none (logged).
    int getFd(EFile file) const;

    /// @brief Opens a file unless it is open. @return 0; -1 when that failed (logged).
    int openFile(EFile file);

    /// @return Number, path, direction, value, edge and active-low setting in one line; empty when
    ///         the line is not exported.
    std::string toString() const;

    /// @brief Reads a file from its beginning. @tparam T  int, bool, EDirection or EEdge.
    /// @return What it says; 0 when it could not be read (logged) or says none of T's texts.
    template <class T>
    T readGpioFile(EFile file) const;

    /// @brief Writes a value as text; the closing zero byte goes with it. @tparam T  As above.
    template <class T>
    void writeGpioFile(EFile file, T value);

protected:
    int number;          ///< The kernel's.
    bool exported;       ///< The line has its files; set by init().
    bool shall_unexport; ///< For derived classes that want to note it; the library does not ask.
    std::string path;    ///< Directory of the files, with a "/" at its end.
    int fdTable[MAX_FD]; ///< Descriptors of the files; -1: not open.

    static const std::string m_szLabel; ///< "CGpio".

private:
    bool bExported(const char* szOperation) const;
    std::string szValuePath() const;
    void SetUpInput(EEdge edge);
    void SetUpOutput(EDirection dir);
};

extern template int CGpio::readGpioFile<int>(EFile) const;
extern template bool CGpio::readGpioFile<bool>(EFile) const;
extern template CGpio::EDirection CGpio::readGpioFile<CGpio::EDirection>(EFile) const;
extern template CGpio::EEdge CGpio::readGpioFile<CGpio::EEdge>(EFile) const;
extern template void CGpio::writeGpioFile<int>(EFile, int);
extern template void CGpio::writeGpioFile<bool>(EFile, bool);
extern template void CGpio::writeGpioFile<CGpio::EDirection>(EFile, EDirection);
extern template void CGpio::writeGpioFile<CGpio::EEdge>(EFile, EEdge);

/// @name The texts of the files
/// Written in lower case, and nothing for a number that has no text; read in lower or upper case.
/// Any other text sets the stream's fail state; a direction is IN then.
/// @{
QUORCORE_API std::ostream& operator<<(std::ostream& stream, CGpio::EDirection direction);
QUORCORE_API std::ostream& operator<<(std::ostream& stream, CGpio::EEdge edge);
QUORCORE_API std::ostream& operator<<(std::ostream& stream, CGpio::EFile file);
QUORCORE_API std::istream& operator>>(std::istream& stream, CGpio::EDirection& direction);
QUORCORE_API std::istream& operator>>(std::istream& stream, CGpio::EEdge& edge);
QUORCORE_API std::istream& operator>>(std::istream& stream, CGpio::EFile& file);
/// @}

QUORCORE_API std::ostream& operator<<(std::ostream& stream, const CGpio& gpio); ///< toString().

QUORCORE_API std::string
num2name(int n); ///< @return "gpio" and the number, as the directory's name.

/// @return The number behind the first four characters, 0 if none is there; -1 for a name of four
///         characters or fewer, and for null.
QUORCORE_API int name2num(const char* name);
} // namespace QuorCore
