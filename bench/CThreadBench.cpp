// What it costs to start a thread and to know that its loop runs.

#include "libQuorCore/CThread.h"

#include "support/Bench.h"

#include <pthread.h>
#include <semaphore.h>

using namespace QuorCore;

namespace
{
class CIdleThread : public CThread
{
public:
    CIdleThread() : CThread(nullptr, "idle") { sem_init(&m_end, 0, 0); }
    ~CIdleThread() override { End(); }
    void End()
    {
        sem_post(&m_end);
        iStop(true, false);
    }
    long iRunThread() override
    {
        m_bRun = true;
        sem_wait(&m_end);
        return 0;
    }

private:
    sem_t m_end;
};

void StartWithHandshake(benchmark::State& state)
{
    for (auto _ : state) {
        CIdleThread thread;
        if (thread.iCreateThread(true, 1000) != 0) {
            state.SkipWithError("not started");
        }
        state.PauseTiming();
        thread.End();
        state.ResumeTiming();
    }
}

struct raw_t {
    sem_t started;
    sem_t end;
};

void* pRunRaw(void* pRaw)
{
    raw_t& raw = *static_cast<raw_t*>(pRaw);
    sem_post(&raw.started);
    sem_wait(&raw.end);
    return nullptr;
}

/// pthread_create(3) and one wake-up.
void StartRaw(benchmark::State& state)
{
    raw_t raw;
    sem_init(&raw.started, 0, 0);
    sem_init(&raw.end, 0, 0);
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(&thread, nullptr, pRunRaw, &raw);
        sem_wait(&raw.started);
        state.PauseTiming();
        sem_post(&raw.end);
        pthread_join(thread, nullptr);
        state.ResumeTiming();
    }
}

const bool kRegistered = Bench::bCompare(
    {"start a thread and wait for its loop", StartWithHandshake, StartRaw, Bench::AtMostTimes(3)});
} // namespace
