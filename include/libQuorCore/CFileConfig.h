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
/// Flat set of text settings, loaded from and saved to one key=value file.
class QUORCORE_API CFileConfig
{
public:
    CFileConfig();
    CFileConfig(const CFileConfig&) = delete;
    CFileConfig& operator=(const CFileConfig&) = delete;
    virtual ~CFileConfig();

    void SetFilename(const char* szFilename);
    const char* pszGetFilename();
    void RemoveAll();

    long iLoad();
    long iLoad(const char* szPath);
    long iSave();
    long iSave(const char* szPath);
    int iParseLine(FILE* pFile);

    int iGetParameter(const char* szKey, int iDefault);
    float fGetParameter(const char* szKey, float fDefault);
    std::string szGetParameter(const char* szKey, const char* szDefault);
    void SetParameter(const char* szKey, int iValue);
    void SetParameter(const char* szKey, unsigned int iValue);
    void SetParameter(const char* szKey, float fValue);
    void SetParameter(const char* szKey, const char* szValue);

protected:
    std::map<std::string, std::string> m_map; ///< Guarded by m_Lock; in key order, as saved.
    CRecursiveLock m_Lock;
    std::string m_szFilename; ///< Empty until set or defaulted.
};

QUORCORE_API bool bTouchFile(const char* szPath);
QUORCORE_API long iMakeDirectory(const char* szPath, unsigned int iMode);
QUORCORE_API long iSetCurrentDirectory(const char* szPath);
QUORCORE_API long iGetDirectoryList(const char* szPath, std::vector<std::string>& names);
QUORCORE_API long iEmptyDirectory(const char* szPath);
QUORCORE_API long iDeleteFile(const char* szPath, const char* szName);
QUORCORE_API void handleLastError();
QUORCORE_API long iMakeTempFile(const char* szName, char* pBuffer, int iSize);
QUORCORE_API bool bGetFullPathName(char* pBuffer, int iSize);
QUORCORE_API bool bGetFileName(char* pBuffer, int iSize);
QUORCORE_API bool bGetCurrentDirectory(char* pBuffer, int iSize);
QUORCORE_API bool bMakeFullConfigName(std::string& szOut, const char* szPart1, const char* szPart2,
                                      const char* szPart3);
QUORCORE_API bool bMakeDefaultConfigName(std::string& szOut, const char* szDirectory,
                                         const char* szSuffix);
} // namespace QuorCore
