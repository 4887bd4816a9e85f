// A data tree that is given anything: bytes, a request, a document without a check. The first byte
// of the input chooses; a request that is refused must leave the tree as it was.
#include "libQuorCore/CDMSrvCallback.h"
#include "libQuorCore/CDMStatCellServing.h"
#include "libQuorCore/CSerializeBuffer.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace QuorCore;

namespace
{
void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

ustring Bytes(CObjectData& tree)
{
    ustring bytes;
    CSerialize stream(&bytes, true, false, false);
    Require(tree.iSerialize(stream) == 0);
    return bytes;
}

void ReadBytes(CObjectData& tree, const uint8_t* pData, size_t size)
{
    ustring bytes(pData, size);
    CSerializeBuffer checked(bytes.data(), static_cast<long>(size), false, false, 0);
    const long lChecked = tree.iCheckStatus(checked, false);
    Require(lChecked == 0 || lChecked == -1 || lChecked == -2200);
    CSerializeBuffer stream(bytes.data(), static_cast<long>(size), false, false, 0);
    const long lRead = tree.iSerialize(stream);
    Require(lRead == 0 || lRead == -1);
}

void WriteRequest(CObjectData& tree, std::string szText, CContextJson::enumCmd cmd)
{
    const ustring before = Bytes(tree);
    CContextJson context(cmd, "", SERIALIZE_JSON_STREAM, false, false);
    std::string szOut;
    const long lCode = tree.iMoWrite(context, &szText, &szOut, "");
    Require(lCode == 200 || lCode == 403);
    Require(lCode == 200 || Bytes(tree) == before);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    if (size == 0) {
        return 0;
    }
    CRecord root(nullptr, "root");
    CDMSrvCallback service(&root, "service");
    CDMStatCellServing cell(&root, "cell");
    service.m_WhiteList.SetAttributeCanDelete((*pData & 0x80U) != 0);
    const std::string szText(reinterpret_cast<const char*>(pData) + 1, size - 1);
    const unsigned iCommand = *pData & 0x0FU;
    if (iCommand >= 8) {
        ReadBytes(root, pData + 1, size - 1);
    } else if (iCommand <= CContextJson::eNotify) {
        WriteRequest(root, szText, static_cast<CContextJson::enumCmd>(iCommand));
    } else {
        CContextJson context(CContextJson::ePut, "", SERIALIZE_JSON_STREAM, false, false);
        std::string szCopy = szText;
        root.bDeserializeStreamJson(context, szCopy);
    }
    std::string szOut;
    Require(root.iMoRead(&szOut, "", 5) == 200);
    return 0;
}
