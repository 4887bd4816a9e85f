#include "Greeting.h"

#include "../common/HelloProtocol.h"

#include <cstring>
#include <string>

using namespace QuorCore;

// The size is looked at before the bytes are. The answer is longer than the request, so it gets
// memory of its own.
std::vector<uint8_t> MakeGreeting(CHelloTree& tree, socketFrame_t& request)
{
    const size_t nameBytes = request.GetDataSize();
    std::string szAnswer;
    if (nameBytes <= kNameBytesMax) {
        szAnswer =
            tree.szGreet(std::string(reinterpret_cast<char*>(request.pGetData()), nameBytes));
    }
    std::vector<uint8_t> memory(kFrameHeaderSize + szAnswer.size());
    std::memcpy(memory.data(), &request, kFrameHeaderSize);
    auto* const pAnswer = reinterpret_cast<socketFrame_t*>(memory.data());
    pAnswer->SetData(reinterpret_cast<uint8_t*>(szAnswer.data()),
                     static_cast<int>(szAnswer.size()));
    pAnswer->error = !szAnswer.empty() ? 0 : kErrorBadName;
    QUORCORE_LOG(LOG_DEBUG, "asked to greet, answered \"%s\"", szAnswer.c_str());
    return memory;
}
