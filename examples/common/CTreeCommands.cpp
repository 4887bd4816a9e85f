#include "CTreeCommands.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <utility>

using namespace QuorCore;

namespace
{
constexpr int kWholeDepth = 1000; // levels of records; no tree has as many

/// A frame of more wraps the 16 bits in which peers compute its size.
constexpr size_t kAnswerBytesMax = 65535 - kFrameHeaderSize;

/// Calls a function with each request.
class CFrameCallback : public CInvokeCallback
{
public:
    explicit CFrameCallback(std::function<void(socketFrame_t&)> answer)
        : m_answer(std::move(answer))
    {
    }

    void invoke(void* pData) const override
    {
        auto* const pRequest = static_cast<socketFrame_t*>(pData);
        if (pRequest != nullptr && pRequest->error == 0) {
            m_answer(*pRequest);
        }
    }

private:
    const std::function<void(socketFrame_t&)> m_answer;
};

template <class Endpoint>
void RegisterBoth(Endpoint& endpoint, const std::function<void(socketFrame_t&)>& answer)
{
    for (const uint16_t command : {CMD_COMMUN_GET_CONFIG, CMD_COMMUN_SET_CONFIG}) {
        endpoint.pAddCallback(command, new CFrameCallback(answer));
    }
}

socketFrame_t* pFrame(std::vector<uint8_t>& memory)
{
    return reinterpret_cast<socketFrame_t*>(memory.data());
}

std::string szName(const CSocketHub::peer_t& peer)
{
    if (peer.bLocal) {
        return "user " + std::to_string(peer.uid) + ", process " + std::to_string(peer.pid);
    }
    return peer.szAddress + " port " + std::to_string(peer.iPort);
}

std::string szErrorDocument(const std::string& szObject, const std::string& szCause)
{
    Json::Value document;
    if (!szObject.empty()) {
        document["object"] = szObject;
    }
    document["cause"] = szCause;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, document);
}

/// Letters, in whatever encoding, and no control characters. Some peers end their texts by a zero
/// byte, which is not one of them.
bool bTakeText(socketFrame_t& frame, std::string& szText)
{
    szText.assign(reinterpret_cast<const char*>(frame.pGetData()), frame.GetDataSize());
    if (!szText.empty() && szText.back() == '\0') {
        szText.pop_back();
    }
    return std::none_of(szText.begin(), szText.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}
} // namespace

void CTreeCommands::Register(CSocketHub& hub)
{
    RegisterBoth(hub, [this, &hub](socketFrame_t& request) {
        const CSocketHub::peer_t* const pPeer = hub.pAskingPeer();
        if (pPeer != nullptr) {
            std::vector<uint8_t> answer = Answer(request, szName(*pPeer));
            hub.iAnswer(pPeer->id, pFrame(answer));
        }
    });
}

void CTreeCommands::Register(CSocketBase& endpoint)
{
    RegisterBoth(endpoint, [this, &endpoint](socketFrame_t& request) {
        std::vector<uint8_t> answer = Answer(request, "the peer of " + endpoint.szGetLabel());
        endpoint.iWrite(pFrame(answer));
    });
}

// The answer may be longer than the request's memory, so it gets memory of its own.
std::vector<uint8_t> CTreeCommands::Answer(socketFrame_t& request, const std::string& szUser)
{
    outcome_t outcome;
    try {
        outcome = Serve(request, szUser);
    } catch (const std::exception& error) { // of the JSON library
        outcome = {kFailed, szErrorDocument("", error.what())};
    }
    if (outcome.szData.size() > kAnswerBytesMax) {
        outcome = {kTooLarge,
                   szErrorDocument("", "the answer has " + std::to_string(outcome.szData.size()) +
                                           " bytes, a frame takes " +
                                           std::to_string(kAnswerBytesMax))};
    }
    std::vector<uint8_t> memory(kFrameHeaderSize + outcome.szData.size());
    std::memcpy(memory.data(), &request, kFrameHeaderSize);
    pFrame(memory)->SetData(reinterpret_cast<uint8_t*>(outcome.szData.data()),
                            static_cast<int>(outcome.szData.size()));
    pFrame(memory)->error = outcome.iError;
    return memory;
}

CTreeCommands::outcome_t CTreeCommands::Serve(socketFrame_t& request, const std::string& szUser)
{
    if (request.command == CMD_COMMUN_SET_CONFIG) {
        return Write(
            std::string(reinterpret_cast<const char*>(request.pGetData()), request.GetDataSize()),
            szUser);
    }
    std::string szFullName;
    if (request.command != CMD_COMMUN_GET_CONFIG || !bTakeText(request, szFullName)) {
        return {kBadRequest, szErrorDocument("", "the name of an attribute is expected as text")};
    }
    return Read(szFullName, szUser);
}

CTreeCommands::outcome_t CTreeCommands::Read(const std::string& szFullName,
                                             const std::string& szUser)
{
    const std::lock_guard<std::mutex> held(m_tree.Lock());
    CObjectData* const pNode = szFullName.empty() ? &m_tree : m_tree.pFindByFullName(szFullName);
    if (pNode == nullptr) {
        return {kNotFound, szErrorDocument(szFullName, "there is no such attribute")};
    }
    std::string szJson;
    if (pNode->iMoRead(&szJson, szUser, kWholeDepth) != CContextJson::kOk) {
        return {kFailed, szErrorDocument(szFullName, "the attribute cannot be published")};
    }
    return {0, szJson};
}

CTreeCommands::outcome_t CTreeCommands::Write(std::string szDocument, const std::string& szUser)
{
    const auto makeContext = [&szUser] {
        return CContextJson(CContextJson::ePut, szUser, SERIALIZE_JSON_STREAM, false, true);
    };
    const std::lock_guard<std::mutex> held(m_tree.Lock());
    CContextJson context = makeContext();
    std::string szCause;
    const long iCode = m_tree.iMoWrite(context, &szDocument, &szCause, szUser);
    if (iCode == CContextJson::kOk) {
        QUORCORE_LOG(LOG_NOTICE, "%s was written by %s", m_tree.szGetFullName().c_str(),
                     szUser.c_str());
        m_tree.iPostMessage(EVT_DATABASE_SAVE, 0, 0, nullptr, 0, 0);
        return {};
    }
    // Which attribute it was is told by the check alone: it leaves a document of its own, in place
    // of which writing gives the bare cause.
    CContextJson second = makeContext();
    std::string szError;
    m_tree.iCheckStreamJson(second, &szDocument, &szError, false);
    QUORCORE_LOG(LOG_NOTICE, "%s was not written by %s: %s", m_tree.szGetFullName().c_str(),
                 szUser.c_str(), szCause.c_str());
    return {static_cast<uint16_t>(iCode),
            !szError.empty() ? szError : szErrorDocument("", szCause)}; // empty: it is no JSON
}
