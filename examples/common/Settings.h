/// @file
/// @brief What the example daemons do alike with their command line and configuration file.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

/**
 * @brief Reads a whole number and says in the log what is wrong with it.
 *
 * The getter adds a missing key with its default, so the saved file shows all that can be set.
 *
 * @param iValue  Receives the number; after a failure it is not to be used.
 * @return False: the text is no number, or the number lies outside of @p iMin to @p iMax.
 */
inline bool bReadNumber(QuorCore::CFileConfig& config, const char* szKey, int iDefault, int iMin,
                        int iMax, int& iValue)
{
    try {
        iValue = config.iGetParameter(szKey, iDefault);
        if (iMin <= iValue && iValue <= iMax) {
            return true;
        }
    } catch (const std::logic_error&) { // std::invalid_argument or std::out_of_range
    }
    QUORCORE_LOG(LOG_ERR, "configuration %s: %s=%s is not a number from %d to %d",
                 config.pszGetFilename(), szKey, config.szGetParameter(szKey, "").c_str(), iMin,
                 iMax);
    return false;
}

/**
 * @brief Gives a thread that is not yet started the log level that is configured for it.
 *
 * The library does so, too, but later, when the dispatcher comes to hear of the start: a daemon
 * that is told to save its levels before that would save those that nobody has chosen. And an
 * unusable value would only keep the library from applying it; here it stops the daemon.
 *
 * @return As bReadNumber().
 */
inline bool bReadLogLevel(QuorCore::CFileConfig& config, QuorCore::CThread& thread, int iDefault)
{
    int iLevel = iDefault;
    const std::string szKey = "log_level_" + thread.szGetLabel(); // as the library has it
    const bool bGood = bReadNumber(config, szKey.c_str(), iDefault, LOG_EMERG, LOG_DEBUG, iLevel);
    if (bGood) {
        thread.SetLogLevel(iLevel);
    }
    return bGood;
}

/// @brief The file after "--config"; absolute, since a daemon leaves its working directory.
/// @return Empty without the option: the library's default place is meant.
inline std::string szConfigOption(QuorCore::CCoreApp& app, int argc, char** argv)
{
    const char* const szFile = app.szGetParamArguments(argc, argv, "--config");
    if (szFile == nullptr || szFile[0] == '/') {
        return szFile != nullptr ? szFile : "";
    }
    const std::unique_ptr<char, decltype(&std::free)> pDirectory(getcwd(nullptr, 0), &std::free);
    return std::string(pDirectory != nullptr ? pDirectory.get() : ".") + '/' + szFile;
}
