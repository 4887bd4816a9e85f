// The plain serial thread as a modem's: AT commands and the text that ends their answers.
#include <libQuorCore/libQuorCore.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr int kUsageError = 2;
constexpr int kStartLimitMs = 10000;
constexpr long kOpenLimitMs = 3000;
constexpr long kAnswerBytesMax = 4096;

/// Hands its chunks to the exchange that waits, and prints what nobody waits for.
class CRawModem : public CThreadSerial
{
public:
    CRawModem() : CThreadSerial(nullptr, "at_raw") {}
    ~CRawModem() override { EndThread(); }

    void OnConnect() override { m_Connected.iSetEvent(); }
    bool bAwaitConnection() { return m_Connected.iWaitForEvent(kOpenLimitMs) == 0; }

    // What the exchange does not take, since it lacks the awaited text, is kept: the next chunk
    // comes behind it. So an answer may come in any number of pieces.
    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override
    {
        pFrame[lSizeTotal] = 0; // the buffer has room: the text is searched up to here
        const long lTaken = CThreadCom::lDispatchTrame(pFrame, lSizeTotal, plUsed);
        if (lTaken == 0 && m_ExchangeResult != kExchangePending) {
            const std::string szText(reinterpret_cast<const char*>(pFrame));
            std::cout << "unasked: " << Strip(szText, nullptr) << std::endl;
            *plUsed = lSizeTotal;
        }
        return lTaken;
    }

private:
    CEvent m_Connected;
};

// The matcher knows one text. A modem that says "ERROR" instead is one that does not answer: who
// wants to know better uses CThreadAT.
bool bAsk(CRawModem& modem, const std::string& szCommand, long lTimeOutMs)
{
    std::string szAnswer(kAnswerBytesMax, 0);
    long lUsed = 0;
    const long lResult = modem.iExchangeAT((szCommand + '\r').c_str(), "OK\r\n", szAnswer.data(),
                                           kAnswerBytesMax, &lUsed, lTimeOutMs);
    szAnswer.resize(static_cast<size_t>(std::min(lUsed, kAnswerBytesMax)));
    if (lResult != 0) {
        modem.RestartBuffer(); // what came of it is no part of the next answer
        std::cout << szCommand << ": FAILED" << std::endl;
        return false;
    }
    replace(szAnswer, "\r", "");
    std::cout << szCommand << ": " << Strip(szAnswer, nullptr) << std::endl;
    return true;
}
} // namespace

// at_raw DEVICE TIMEOUT_MS COMMAND...
int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() < 3 || std::atol(args[1].c_str()) < 1) {
        std::fputs("usage: at_raw DEVICE TIMEOUT_MS COMMAND...\n", stderr);
        return kUsageError;
    }
    CThread::m_Logger.Init("at_raw");
    CRawModem modem;
    modem.SetSettleDelay(0);
    modem.Configure(0, kAnswerBytesMax, args[0].c_str());
    if (modem.iCreateThread(true, kStartLimitMs) != 0 || !modem.bAwaitConnection()) {
        std::fprintf(stderr, "at_raw: there is no modem at %s\n", args[0].c_str());
        return EXIT_FAILURE;
    }
    bool bGood = true;
    for (size_t i = 2; i < args.size(); ++i) {
        bGood = bAsk(modem, args[i], std::atol(args[1].c_str())) && bGood;
    }
    modem.iStop(true, false);
    return bGood ? EXIT_SUCCESS : EXIT_FAILURE;
}
