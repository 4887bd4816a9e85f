/// @file
/// @brief Connections over loopback, and the straight hand-written other end of them.
#pragma once

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/CSocketCallback.h"

#include <cstdint>
#include <sched.h>
#include <semaphore.h>
#include <thread>
#include <vector>

namespace Bench
{
constexpr uint16_t kCommand = 1000; ///< Of the frames that are measured.
constexpr long kDataMax = 4096;     ///< Data that an endpoint takes.

/// @return @p iResult. Throws std::system_error when it is -1.
int iChecked(int iResult, const char* szCall);

/// Keeps a measurement, threads that it makes included, on one processor: where the kernel happens
/// to wake the other end would else decide alone.
class COnOneProcessor
{
public:
    COnOneProcessor();
    COnOneProcessor(const COnOneProcessor&) = delete;
    COnOneProcessor& operator=(const COnOneProcessor&) = delete;
    ~COnOneProcessor();

private:
    cpu_set_t m_former;
};

/// Two ends of a connection over loopback; whoever takes them closes them.
struct connection_t {
    int iNear;
    int iFar;
};

/// Connects two sockets with the options that lSetOption() gives an endpoint, and its TCP_NODELAY.
connection_t Connect();

/// @return A socket that is connected to @p iPort of this machine; the caller closes it.
int iConnectTo(int iPort);

/// @return A frame of kCommand with so much data.
std::vector<uint8_t> MakeFrame(size_t nData);

void SendAll(int iFd, const std::vector<uint8_t>& bytes);  ///< Or less, when it is closed.
bool bReceiveAll(int iFd, uint8_t* pBytes, size_t nBytes); ///< @return Whether all came.

/// The other end by hand, on a thread of its own: sends every frame back. Closes it at the end.
class CRawEcho
{
public:
    CRawEcho(int iFd, size_t nBytes);
    CRawEcho(const CRawEcho&) = delete;
    CRawEcho& operator=(const CRawEcho&) = delete;
    ~CRawEcho();

private:
    const int m_iFd;
    std::thread m_thread;
};

/// An endpoint on a socket that is connected already; its handler gets the frames of kCommand.
class CEndpoint : public QuorCore::CSocketBase
{
public:
    CEndpoint(const char* szLabel, int iFd);
    ~CEndpoint() override;
    void Start();
    long iInitInstance() override;
    virtual void OnFrame(QuorCore::socketFrame_t* pFrame) = 0;
    void Await() { sem_wait(&m_done); }

protected:
    sem_t m_done;
};

/// Sends every frame back.
class CEchoEndpoint : public CEndpoint
{
public:
    using CEndpoint::CEndpoint;
    ~CEchoEndpoint() override { iStop(true, false); }
    void OnFrame(QuorCore::socketFrame_t* pFrame) override { iWrite(pFrame); }
};
} // namespace Bench
