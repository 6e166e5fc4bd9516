// SPDX-License-Identifier: Apache-2.0
#pragma once
// The two-step stop of the daemon. SIGINT, SIGQUIT and SIGTERM are blocked in
// every thread and taken from a signalfd by one watcher thread, so what a
// signal does (log lines, the stop flag, the immediate exit on the second one)
// happens in normal context instead of inside a handler:
//   first signal:  the stop flag is set and the main loop is woken;
//   second signal: the process ends at once with status 1.
//
// Construct it in the main thread before any other thread exists, so that
// every later thread inherits the blocked mask.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "app/CStopSource.h"

class CSignalWatcher : public CStopSource {
public:
    CSignalWatcher();
    ~CSignalWatcher() override;
    CSignalWatcher(const CSignalWatcher&) = delete;
    CSignalWatcher& operator=(const CSignalWatcher&) = delete;

    // False when the signalfd or the wake pipe could not be made (logged).
    bool ok() const { return m_ok; }
    bool stopRequested() const override { return m_stop.load(); }
    // Raised with the first signal; the host link's retry loops watch it.
    const std::atomic<bool>& stopFlag() const { return m_stop; }
    // Sleeps up to `d` or until a stop is asked; true when stopping.
    bool waitStop(std::chrono::milliseconds d) override;

private:
    void run();
    void onSignal(int signo, unsigned long address);

    class Fd {
    public:
        Fd() = default;
        explicit Fd(int fd) : m_fd(fd) {}
        ~Fd();
        Fd(Fd&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
        Fd& operator=(Fd&& other) noexcept;
        Fd(const Fd&) = delete;
        Fd& operator=(const Fd&) = delete;
        int get() const { return m_fd; }

    private:
        int m_fd = -1;
    };

    bool m_ok = false;
    std::atomic<bool> m_stop{false};
    Fd m_signalFd;
    Fd m_quitRead;
    Fd m_quitWrite;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::thread m_thread;
};
