#include "support/CWorker.h"

#include "support/CDeadline.h"

#include <chrono>
#include <cstdlib>
#include <iostream>

namespace TestSupport
{
CWorker::CWorker() : m_Thread(&CWorker::Loop, this) {}

CWorker::~CWorker()
{
    Finish();
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        m_bEnd = true;
        m_Changed.notify_all();
    }
    m_Thread.join();
}

void CWorker::Run(const std::function<void()>& step)
{
    Start(step);
    Finish();
}

void CWorker::Start(const std::function<void()>& step)
{
    Finish();
    const std::lock_guard<std::mutex> held(m_Lock);
    m_Step = step;
    m_Changed.notify_all();
}

void CWorker::Finish()
{
    std::unique_lock<std::mutex> held(m_Lock);
    if (!m_Changed.wait_for(held, std::chrono::milliseconds(kAwaitLimitMs),
                            [this] { return !m_Step; })) {
        std::cerr << "a step of a test's second thread does not end\n";
        std::abort();
    }
}

void CWorker::Loop()
{
    std::unique_lock<std::mutex> held(m_Lock);
    for (;;) {
        m_Changed.wait(held, [this] { return m_Step || m_bEnd; });
        if (!m_Step) {
            return;
        }
        held.unlock();
        m_Step();
        held.lock();
        m_Step = nullptr;
        m_Changed.notify_all();
    }
}
} // namespace TestSupport
