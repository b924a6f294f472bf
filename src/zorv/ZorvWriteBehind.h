// ZorvWriteBehind: the writes a decision asks for (a trust rule's first hit,
// an item learned in a maintenance window, from a trusted updater or by file
// time), carried out on a thread of their own so that the decision never waits
// for the writer, which an import, a flush or another process may hold for
// seconds.
//
// Thread-safe. One mutex guards the queue and is held only to add or take
// tasks, never while one (or a tick) runs. A task posted while the worker
// runs reaches the store as soon as the writer is free; Drain runs what is
// queued on the caller's thread (a flush), and Stop runs it all before the
// worker ends, so nothing posted while the store is open is lost.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zorv {

class ZorvWriteBehind {
public:
    using Task = std::function<void()>;

    ZorvWriteBehind() = default;
    ~ZorvWriteBehind();
    ZorvWriteBehind(const ZorvWriteBehind&) = delete;
    ZorvWriteBehind& operator=(const ZorvWriteBehind&) = delete;

    // Starts the worker unless it runs. False when no thread could be made:
    // tasks then run on the posting thread, as before there was a worker.
    bool Start();
    // Queues `task` for the worker, or runs it here when there is none.
    void Post(Task task);
    // Runs every queued task on this thread and waits for the one the worker
    // may be running, so that what was posted before is in the store after.
    void Drain();
    // Runs what is queued, then ends the worker.
    void Stop();
    // At a process's exit, once the system has ended the worker: whether it
    // was ended inside a task (holding whatever the task had taken), and
    // forgetting it and its queue without running anything.
    bool EndedInsideATask();
    void Forsake();

    // Housekeeping the worker does between tasks: from a Wake on, `tick` runs
    // every `interval` until it answers false. Set before Start.
    void SetTick(std::function<bool()> tick, std::chrono::milliseconds interval);
    // Starts the ticks, or asks for one more round if they run. False when no
    // worker runs, so that nothing would ever tick.
    bool Wake();

private:
    void Work();
    // Stop at process exit, once the system has ended the worker.
    void Abandon();
    // Forgets the ended worker; answers what it left queued.
    std::deque<Task> LetGoOfWorker();

    // The condition variables live apart from the object, so that an exit
    // that ended the worker inside one of them can leave them undestroyed:
    // destroying a condition variable a dead thread held spins for ever
    // (the MinGW threads library does).
    struct Signals {
        std::condition_variable wake;
        std::condition_variable idle;
    };
    Signals* m_signals = new Signals;  // deleted by the destructor unless abandoned
    bool m_abandoned = false;

    std::mutex m_mutex;                                  // guards the members below up to m_nextTick
    std::condition_variable& m_wake = m_signals->wake;  // a task arrived, or Stop
    std::condition_variable& m_idle = m_signals->idle;  // the worker finished a task
    std::deque<Task> m_tasks;
    bool m_running = false;           // a worker takes tasks
    bool m_busy = false;              // the worker runs a task it took
    bool m_stopping = false;
    bool m_ticking = false;           // a tick is due at m_nextTick
    bool m_wokenInTick = false;       // a Wake came while a tick ran
    std::chrono::steady_clock::time_point m_nextTick;
    std::function<bool()> m_tick;     // set before Start, then only read
    std::chrono::milliseconds m_tickInterval{0};
    std::thread m_worker;             // started and joined by Start and Stop only
    std::mutex m_lifecycle;           // serialises Start and Stop
};

}  // namespace zorv
