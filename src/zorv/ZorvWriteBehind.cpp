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
    // The worker was ended by the system, possibly inside a wait or holding
    // the mutex: waking or joining it could hang the host's exit for ever.
    // Forget the thread; what it left queued is stored here, if the mutex is
    // free to look.
    std::deque<Task> left;
    if (m_mutex.try_lock()) {
        left.swap(m_tasks);
        m_running = false;
        m_busy = false;
        m_stopping = true;
        m_mutex.unlock();
    }
    if (m_worker.joinable()) m_worker.detach();
    for (const Task& task : left) Run(task);
}

void ZorvWriteBehind::Work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stopping || !m_tasks.empty(); });
        if (m_tasks.empty()) {
            // Stopping, and everything is stored; a later Post runs inline.
            m_running = false;
            return;
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
