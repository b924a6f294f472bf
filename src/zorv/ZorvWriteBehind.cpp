#include "ZorvWriteBehind.h"

#include <system_error>

#include "ZorvLogger.h"
#include "platform/Platform.h"

namespace zorv {

namespace {
constexpr char16_t kLogSource[] = u"src/zorv/ZorvWriteBehind";
// A task is a store operation, which reports failure by its result and its
// log; anything thrown (memory) ends that task only, never the worker.
void Run(const ZorvWriteBehind::Task& task) {
    try {
        task();
    } catch (...) {
        ZORV_LOG(kLogError, u"ZorvWriteBehind::Run", u"A deferred write failed");
    }
}

}  // namespace

ZorvWriteBehind::~ZorvWriteBehind() {
    // A destructor must not throw; Stop only locks and joins.
    try {
        Stop();
    } catch (...) {
    }
    if (!m_abandoned) delete m_signals;
}

bool ZorvWriteBehind::Start() {
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_running) return true;
        m_stopping = false;
        m_running = true;
    }
    try {
        m_worker = std::thread(&ZorvWriteBehind::Work, this);
    } catch (const std::system_error&) {
        ZORV_LOG(kLogError, u"ZorvWriteBehind::Start", u"Unable to start the write-behind thread");
        std::lock_guard<std::mutex> lock(m_mutex);
        m_running = false;
        return false;
    }
    return true;
}

void ZorvWriteBehind::Post(Task task) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_running) {
            m_tasks.push_back(std::move(task));
            m_wake.notify_one();
            return;
        }
    }
    Run(task);
}

void ZorvWriteBehind::Drain() {
    for (;;) {
        Task task;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_tasks.empty()) {
                // What the worker took before this call must be stored too.
                m_idle.wait(lock, [this] { return !m_busy; });
                return;
            }
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        Run(task);
    }
}

void ZorvWriteBehind::Stop() {
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    if (platform::OtherThreadsEnded()) {
        Abandon();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running) return;
        m_stopping = true;
        m_wake.notify_one();
    }
    if (m_worker.joinable()) m_worker.join();
}

void ZorvWriteBehind::Abandon() {
    // What the ended worker left queued is stored here.
    for (const Task& task : LetGoOfWorker()) Run(task);
}

std::deque<ZorvWriteBehind::Task> ZorvWriteBehind::LetGoOfWorker() {
    // The worker was ended by the system, possibly inside a wait or holding
    // the mutex: waking or joining it could hang the host's exit for ever.
    // Forget the thread, and take its queue if the mutex is free to look.
    m_abandoned = true;
    std::deque<Task> left;
    if (m_mutex.try_lock()) {
        left.swap(m_tasks);
        m_running = false;
        m_busy = false;
        m_stopping = true;
        m_mutex.unlock();
    }
    if (m_worker.joinable()) m_worker.detach();
    return left;
}

bool ZorvWriteBehind::EndedInsideATask() {
    if (!m_mutex.try_lock()) return true;
    const bool busy = m_busy;
    m_mutex.unlock();
    return busy;
}

void ZorvWriteBehind::Forsake() {
    // Nothing is waited for: an ended thread may hold any of the locks.
    std::unique_lock<std::mutex> lifecycle(m_lifecycle, std::try_to_lock);
    LetGoOfWorker();
}

void ZorvWriteBehind::SetTick(std::function<bool()> tick, std::chrono::milliseconds interval) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tick = std::move(tick);
    m_tickInterval = interval;
}

bool ZorvWriteBehind::Wake() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running || m_stopping || !m_tick) return false;
    m_wokenInTick = true;
    if (!m_ticking) {
        m_ticking = true;
        m_nextTick = std::chrono::steady_clock::now() + m_tickInterval;
        m_wake.notify_one();
    }
    return true;
}

void ZorvWriteBehind::Work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        const auto ready = [this] { return m_stopping || !m_tasks.empty(); };
        if (m_ticking) {
            m_wake.wait_until(lock, m_nextTick, ready);
        } else {
            m_wake.wait(lock, [&] { return ready() || m_ticking; });
        }
        if (m_tasks.empty() && m_stopping) {
            // Stopping, and everything is stored; a later Post runs inline.
            m_running = false;
            return;
        }
        if (m_tasks.empty()) {
            if (!m_ticking || std::chrono::steady_clock::now() < m_nextTick) continue;
            // A Wake while the tick runs may be for something the tick has
            // already passed over: it earns one more round.
            m_wokenInTick = false;
            lock.unlock();
            bool again = false;
            try {
                again = m_tick();
            } catch (...) {
            }
            lock.lock();
            m_ticking = again || m_wokenInTick;
            m_nextTick = std::chrono::steady_clock::now() + m_tickInterval;
            continue;
        }
        Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        m_busy = true;
        lock.unlock();
        Run(task);
        lock.lock();
        m_busy = false;
        m_idle.notify_all();
    }
}

}  // namespace zorv
