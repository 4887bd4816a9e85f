// A configuration file: loads any bytes, and what was loaded must survive being saved and loaded.
#include "libQuorCore/CFileConfig.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

using namespace QuorCore;

namespace
{
struct CFileCloser {
    void operator()(FILE* pFile) const { std::fclose(pFile); }
};

class COpenConfig : public CFileConfig
{
public:
    using CFileConfig::m_map;
};

void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

void Load(CFileConfig& config, std::string szContent)
{
    szContent += '\n'; // fmemopen(3) takes no empty buffer; an empty line is none
    const std::unique_ptr<FILE, CFileCloser> pFile(
        ::fmemopen(szContent.data(), szContent.size(), "r"));
    Require(pFile != nullptr);
    while (config.iParseLine(pFile.get()) == 0) {
    }
}

void AskForNumbers(CFileConfig& config, const char* szKey)
{
    try {
        config.iGetParameter(szKey, 0);
    } catch (const std::logic_error&) { // no number, or out of range
    }
    try {
        config.fGetParameter(szKey, 0);
    } catch (const std::logic_error&) {
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize)
{
    COpenConfig config;
    Load(config, std::string(reinterpret_cast<const char*>(pData), iSize));

    std::string szSaved; // the form of a saved file; iSave() itself would flush the whole system
    for (const auto& [szKey, szValue] : config.m_map) {
        Require(!szKey.empty() && !szValue.empty());
        Require(szKey.find_first_of(" =\r\n") == std::string::npos);
        Require(szValue.find_first_of("\r\n") == std::string::npos);
        szSaved.append(szKey).append("=").append(szValue).append("\n");
    }
    COpenConfig reloaded;
    Load(reloaded, szSaved);
    Require(reloaded.m_map == config.m_map);

    for (const auto& [szKey, szValue] : reloaded.m_map) {
        AskForNumbers(config, szKey.c_str());
    }
    return 0;
}
