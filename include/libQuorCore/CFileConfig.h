/// @file
/// @brief A daemon's settings in a key=value file, and small file and directory helpers.
#pragma once

#include "libQuorCore/Export.h"
#include "libQuorCore/synchro.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace QuorCore
{
/**
 * @brief Flat set of text settings, loaded from and saved to one key=value file.
 *
 * The file holds one setting in each line: key, "=", value. A carriage return or a line feed ends a
 * line. Spaces are taken out of the key, inside it too; tabs stay. The value is all that follows
 * the first "=", as it stands. A line without "=", without key or without value is ignored. There
 * are no comments. Saved files have the entries in byte order of their keys.
 *
 * Numbers are stored in decimal, floats with six decimals behind a point, whatever locale the
 * process has set.
 *
 * Threads: any, each call by itself. Getters and setters of other threads wait while the file is
 * written, not while the system is flushed.
 * Ownership: every text is copied. A null text is taken as an empty one.
 * Errors: by return value, a failed save with a line in the log. The numeric getters alone throw,
 * see there; no lock is held then.
 */
class QUORCORE_API CFileConfig
{
public:
    CFileConfig(); ///< No settings, no file name.
    CFileConfig(const CFileConfig&) = delete;
    CFileConfig& operator=(const CFileConfig&) = delete;
    virtual ~CFileConfig(); ///< Saves nothing.

    void SetFilename(const char* szFilename); ///< The file of iLoad() and iSave().
    const char* pszGetFilename(); ///< @return The name, valid until it is set again; may be empty.
    void RemoveAll();             ///< Forgets every setting; the file stays as it is.

    /// Loads the file set, or, when none is set, makes the default name the one that is set:
    /// bMakeDefaultConfigName() with "/conf/" and "_config.conf". @return As the other form.
    long iLoad();

    /**
     * @brief Adds the settings of a file to those that are held, which it overwrites.
     *
     * A file that is missing or cannot be read changes nothing.
     *
     * @return -1 always, after a good load too. This is meant: what counts is what the settings
     *         hold, and a daemon without its file starts with the defaults of its getters.
     */
    long iLoad(const char* szPath);

    long iSave(); ///< Saves to the file set. @return As the other form.

    /**
     * @brief Writes every setting to a file, then flushes the buffers of the whole system.
     *
     * The file is written in place, so that its owner, mode and links stay; a new one gets mode
     * 0644, less the umask. Room for the whole text is reserved before the first old byte is
     * overwritten: on a full disk the file keeps its former content. Where a file system breaks the
     * reserve, as some for flash do, it may end with the part of the new text that found room; a
     * power cut in the middle of a save may leave it cut short as well. The flush, sync(2), may
     * take seconds; it is done on failure too.
     *
     * @return 0; -1 when the path is empty, the lock or the file cannot be had or not all could be
     *         written: "path: error text" is then logged at level 3.
     */
    long iSave(const char* szPath);

    /**
     * @brief Reads one line into the settings.
     * @param pFile  Open for reading; the caller's, and used by no other thread meanwhile.
     * @return 0 while more may follow; -1 at the end of the file, whose last line counts even when
     *         nothing ends it, on a read error and for null.
     */
    int iParseLine(FILE* pFile);

    /**
     * @brief Reads a setting as a decimal number; blanks before and text behind it are ignored.
     *
     * A missing key is added with the default, so that the next save writes it: the file shows all
     * that can be set. A value that does not begin with a number raises std::invalid_argument, one
     * beyond the range std::out_of_range.
     *
     * @return The value; @p iDefault when the key is missing or the lock cannot be taken.
     */
    int iGetParameter(const char* szKey, int iDefault);

    /// The same for a float; one too small for a float raises std::out_of_range as well.
    float fGetParameter(const char* szKey, float fDefault);

    /// The same for the text itself, which raises nothing. @return An empty text when the lock
    /// cannot be taken.
    std::string szGetParameter(const char* szKey, const char* szDefault);

    /**
     * @name Set one value and save the file set.
     *
     * Every single change rewrites the whole file and flushes the system: a change that was made
     * survives. A failed save is logged, and the change is kept in memory.
     *
     * Texts are stored as given. A key with "=" or spaces, or a line break in either, reads as
     * something else at the next load: texts that come from outside are the caller's to check.
     */
    /// @{
    void SetParameter(const char* szKey, int iValue);
    void SetParameter(const char* szKey, unsigned int iValue);
    void SetParameter(const char* szKey, float fValue);
    void SetParameter(const char* szKey, const char* szValue);
    /// @}

protected:
    std::map<std::string, std::string> m_map; ///< Guarded by m_Lock; in key order, as saved.
    CRecursiveLock m_Lock;    ///< Never held while logging: the logger reads its levels from here.
    std::string m_szFilename; ///< Empty until set or defaulted. Guarded by m_Lock.

private:
    const std::string* pFindOrAdd(const char* szKey, const std::string& szDefault);
    void Store(const char* szKey, std::string szValue);
    std::string szMakeText() const;
};

/// Creates a file (mode 0644, less the umask) or empties it. @return Whether that worked; errno as
/// open(2).
QUORCORE_API bool bTouchFile(const char* szPath);

/**
 * @brief Creates a directory and those above it.
 *
 * Every step that fails is logged at level 3 as "path: error text" with the whole path, and the
 * walk goes on. Directories that exist already fail in this sense: the lines are meant, and a path
 * of n directories shows n of them when all is well. Steps are looked for in the first 128
 * characters only.
 *
 * @param iMode  Mode of new directories, as mkdir(2): less the umask.
 * @return 0 always.
 */
QUORCORE_API long iMakeDirectory(const char* szPath, unsigned int iMode);

/// Changes the working directory of the process, for all its threads; a failure is logged at level
/// 3 as "path: error text". @return 0 always.
QUORCORE_API long iSetCurrentDirectory(const char* szPath);

/**
 * @brief Appends the names of the regular files of a directory, in the order they are read.
 * @param names  Appended to.
 * @return 0; -1 when @p names is empty at the end, that is, names it already held count. A
 *         directory that cannot be opened is logged at level 3 as "path: error text".
 */
QUORCORE_API long iGetDirectoryList(const char* szPath, std::vector<std::string>& names);

/**
 * @brief Removes every regular file of a directory; whatever else it holds stays.
 *
 * Makes it the working directory of the process, for all threads and lastingly. Daemons count on
 * that; code with relative paths on other threads must not run meanwhile.
 *
 * @return 0, also when a file could not be removed; -1 when the directory cannot be opened, which
 *         is logged at level 3 as "path: error text" under the name "iGetDirectoryList".
 */
QUORCORE_API long iEmptyDirectory(const char* szPath);

/**
 * @brief Removes one regular file of a directory, which becomes the working directory as above.
 * @param szName  Name within the directory.
 * @return 0; -1 when there is no such regular file, it could not be removed or the directory cannot
 *         be opened, the last logged as above.
 */
QUORCORE_API long iDeleteFile(const char* szPath, const char* szName);

/**
 * @brief Prints a fixed text for the current errno on standard output.
 *
 * Scripts match the texts, so they stay as they are, with a line feed or without one.
 */
QUORCORE_API void handleLastError();

/**
 * @brief Creates an empty file of a new name: "/tmp/", the name given, "_" and six characters.
 *
 * @p iSize bounds each of the three pieces, not their sum. The file has mode 0600; it is the
 * caller's to remove.
 *
 * @param szName   Middle of the name.
 * @param pBuffer  Receives the path, zero-terminated. The caller's, 3 * iSize + 1 bytes.
 * @param iSize    Most characters taken of each piece; at least 7, or the end does not fit.
 * @return 0, or the error number as mkstemp(3), whose text is printed on standard output; then no
 *         file was made.
 */
QUORCORE_API long iMakeTempFile(const char* szName, char* pBuffer, int iSize);

/// @name Where the executable is: the target of /proc/self/exe, see proc(5).
/// A text that does not fit into @p iSize bytes, the terminator included, is cut to them.
/// @{

/// @return True with the executable's full path in @p pBuffer; false when it cannot be read.
QUORCORE_API bool bGetFullPathName(char* pBuffer, int iSize);

/// @return True with the executable's file name in @p pBuffer; false when there is none.
QUORCORE_API bool bGetFileName(char* pBuffer, int iSize);

/// The executable's directory without a "/" at its end; not the working directory.
/// @return True with the directory in @p pBuffer; false when it is empty: an executable directly
///         under the root.
QUORCORE_API bool bGetCurrentDirectory(char* pBuffer, int iSize);

/// Joins the executable's directory and each part that is not empty, in order, adding nothing
/// between them. @return True; false, with @p szOut unchanged, when the directory is not known.
QUORCORE_API bool bMakeFullConfigName(std::string& szOut, const char* szPart1, const char* szPart2,
                                      const char* szPart3);

/// Joins the executable's directory, @p szDirectory, the executable's file name and @p szSuffix:
/// for /opt/app/daemon with "/conf/" and "_config.conf" /opt/app/conf/daemon_config.conf.
/// @return True; false, with @p szOut unchanged, when directory or name is not known.
QUORCORE_API bool bMakeDefaultConfigName(std::string& szOut, const char* szDirectory,
                                         const char* szSuffix);
/// @}
} // namespace QuorCore
