// What a message costs from its post to its slot, against a queue written by hand: a mutex, a deque
// and a semaphore, the same message with its copied payload, the same look-up of the slot.

#include "libQuorCore/CSlotCallback.h"
#include "libQuorCore/CSlotCallbackManager.h"

#include "support/Bench.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <semaphore.h>
#include <thread>

using namespace QuorCore;

namespace
{
constexpr uint32_t kEvent = 2;
constexpr int kBurst = 20000; // messages of one iteration, posted as fast as they go
char g_aPayload[32] = "thirty-two bytes of a payload..";

/// Counts what arrives, and tells when all has.
class CArrivals
{
public:
    explicit CArrivals(int nExpected) : m_nExpected(nExpected) { sem_init(&m_all, 0, 0); }
    void Count()
    {
        if (++m_nArrived == m_nExpected) {
            m_nArrived = 0;
            sem_post(&m_all);
        }
    }
    void Await() { sem_wait(&m_all); }

private:
    const int m_nExpected;
    int m_nArrived = 0; // the receiving thread's
    sem_t m_all;
};

class CReceiver : public CObject
{
public:
    explicit CReceiver(int nExpected) : CObject(nullptr, "receiver"), m_arrivals(nExpected) {}
    void OnMessage(CMsg*) { m_arrivals.Count(); }
    CArrivals m_arrivals;
};

/// A dispatcher with some callbacks, of which one is for kEvent.
class CDispatcher
{
public:
    CDispatcher(int nCallbacks, int nExpected)
        : m_manager(nullptr, "dispatcher"), m_receiver(nExpected)
    {
        m_receiver.SetEventManager(&m_manager, nullptr);
        for (int i = 0; i < nCallbacks; ++i) {
            m_manager.pAddCallback(
                static_cast<uint32_t>(i),
                new CSlotCallback<CReceiver>(&m_receiver, &CReceiver::OnMessage));
        }
        m_manager.iCreateThread(true, 1000);
    }
    ~CDispatcher() { m_manager.iStop(true, false); }
    void Post() { m_receiver.iPostMessage(kEvent, 1, 2, g_aPayload, sizeof(g_aPayload), 0); }
    void Await() { m_receiver.m_arrivals.Await(); }

private:
    CSlotCallbackManager m_manager;
    CReceiver m_receiver;
};

/// The straight equivalent by hand.
class CHandWritten
{
public:
    CHandWritten(int nCallbacks, int nExpected) : m_arrivals(nExpected)
    {
        sem_init(&m_posted, 0, 0);
        for (int i = 0; i < nCallbacks; ++i) {
            m_slots.emplace(static_cast<uint32_t>(i), [this](message_t&) { m_arrivals.Count(); });
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~CHandWritten()
    {
        Push({0, 0, 0, nullptr, 0, true});
        m_thread.join();
    }
    void Post()
    {
        void* const pPayload = std::malloc(sizeof(g_aPayload));
        std::memcpy(pPayload, g_aPayload, sizeof(g_aPayload));
        Push({kEvent, 1, 2, pPayload, sizeof(g_aPayload), false});
    }
    void Await() { m_arrivals.Await(); }

private:
    struct message_t {
        uint32_t iEvent;
        uint32_t iParam1;
        uint32_t iParam2;
        void* pPayload;
        uint32_t iSize;
        bool bLast;
    };

    void Push(const message_t& message)
    {
        {
            const std::lock_guard<std::mutex> held(m_lock);
            m_queue.push_back(message);
        }
        sem_post(&m_posted);
    }

    void Run()
    {
        for (;;) {
            sem_wait(&m_posted);
            message_t message;
            {
                const std::lock_guard<std::mutex> held(m_lock);
                message = m_queue.front();
                m_queue.pop_front();
            }
            if (message.bLast) {
                return;
            }
            const auto slots = m_slots.equal_range(message.iEvent);
            for (auto slot = slots.first; slot != slots.second; ++slot) {
                slot->second(message);
            }
            std::free(message.pPayload);
        }
    }

    CArrivals m_arrivals;
    std::multimap<uint32_t, std::function<void(message_t&)>> m_slots;
    std::mutex m_lock;
    std::deque<message_t> m_queue;
    sem_t m_posted;
    std::thread m_thread;
};

template <class Queue, int nCallbacks, int nMessages>
void Send(benchmark::State& state)
{
    Queue queue(nCallbacks, nMessages);
    for (auto _ : state) {
        for (int i = 0; i < nMessages; ++i) {
            queue.Post();
        }
        queue.Await();
    }
}

template <int nEntries>
void DispatchOneOf(benchmark::State& state)
{
    CReceiver receiver(INT32_MAX);
    CCallbackMap map("map");
    for (int i = 0; i < nEntries; ++i) {
        map.pAddCallback(static_cast<uint32_t>(i),
                         new CSlotCallback<CReceiver>(&receiver, &CReceiver::OnMessage));
    }
    CMsg message;
    for (auto _ : state) {
        map.iDispatchMessage(nEntries - 1, &message);
    }
}

const bool kRegistered =
    Bench::bCompare({"20,000 messages to a slot, 4 callbacks", Send<CDispatcher, 4, kBurst>,
                     Send<CHandWritten, 4, kBurst>, Bench::AtMostTimes(1.0)}) &&
    Bench::bCompare({"20,000 messages to a slot, 64 callbacks", Send<CDispatcher, 64, kBurst>,
                     Send<CHandWritten, 64, kBurst>, Bench::AtMostTimes(1.0)}) &&
    Bench::bCompare({"a message to an idle dispatcher and back", Send<CDispatcher, 4, 1>,
                     Send<CHandWritten, 4, 1>, Bench::AtMostTimes(1.1)}) &&
    // ten halvings instead of two: five times is logarithmic, a walk would be 250 times
    Bench::bCompare({"dispatch one of 1,000 callbacks, against one of 4", DispatchOneOf<1000>,
                     DispatchOneOf<4>, Bench::AtMostTimes(5), Bench::PROCESSOR_TIME});
} // namespace
