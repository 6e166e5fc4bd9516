// SPDX-License-Identifier: Apache-2.0
#pragma once
// Thread wrapper the polling drivers and the LEDs derive from. Start() runs
// functionThread() on a new thread; Stop() asks it to end, wakes it and joins.
//
// A derived class whose functionThread() touches its own members must call
// Stop() in its own destructor: by the time ~myThreadAttached runs, the derived
// part is already gone. The base destructor calls Stop() too, as a safety net.
//
// Waiting never spins: waitUntil() blocks on a condition variable until the
// predicate holds, the deadline passes or a stop is asked; whoever changes what
// the predicate reads calls Wake() afterwards.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

class myThreadAttached {
public:
    myThreadAttached() = default;
    virtual ~myThreadAttached();
    myThreadAttached(const myThreadAttached&) = delete;
    myThreadAttached& operator=(const myThreadAttached&) = delete;

    // Starts functionThread() on a new thread; false if already started.
    bool Start();
    // Asks the thread to stop, wakes it and joins it. Idempotent.
    void Stop();
    // Wakes a thread blocked in waitUntil()/waitFor() so it re-reads its predicate.
    void Wake();
    bool isStopping() const { return m_stop.load(std::memory_order_acquire); }
    bool isRunning() const { return m_thread.joinable(); }

protected:
    virtual void functionThread() = 0;

    // Blocks until pred() is true, `deadline` passes or a stop is asked.
    // Returns pred() as last seen. pred is called with the wake mutex held.
    template <class Clock, class Duration, class Pred>
    bool waitUntil(const std::chrono::time_point<Clock, Duration>& deadline, Pred pred) {
        std::unique_lock<std::mutex> lock(m_wakeMutex);
        while (!pred()) {
            if (isStopping())
                return false;
            if (m_wakeCv.wait_until(lock, deadline) == std::cv_status::timeout)
                return pred();
        }
        return true;
    }
    template <class Rep, class Period, class Pred>
    bool waitFor(const std::chrono::duration<Rep, Period>& d, Pred pred) {
        return waitUntil(std::chrono::steady_clock::now() + d, pred);
    }
    // Sleeps for `d` unless a stop is asked first; false when stopping.
    template <class Rep, class Period>
    bool sleepFor(const std::chrono::duration<Rep, Period>& d) {
        waitFor(d, [this] { return isStopping(); });
        return !isStopping();
    }

private:
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::mutex m_wakeMutex;
    std::condition_variable m_wakeCv;
};
