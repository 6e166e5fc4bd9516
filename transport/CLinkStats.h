// SPDX-License-Identifier: Apache-2.0
#pragma once
// Line-quality counters of one meter: reply time-outs, frames with a wrong
// check sum (BCC, CRC) and repeated requests. The protocol layers note them next
// to their log line with CLinkStats::note*(); the notes go to the counters that
// the calling thread has bound with CLinkStats::Bind, which is the polling thread
// of the meter whose turn it is. A thread with nothing bound (a test, a tool)
// notes into nothing.
//
// Header-only so that every layer down to the protocols can note without
// linking anything new.

#include <atomic>
#include <cstdint>

class CLinkStats {
public:
    std::atomic<uint64_t> timeouts{0};
    std::atomic<uint64_t> checksumErrors{0};
    std::atomic<uint64_t> retries{0};

    static void noteTimeout() {
        if (CLinkStats* s = current())
            s->timeouts.fetch_add(1, std::memory_order_relaxed);
    }
    static void noteChecksumError() {
        if (CLinkStats* s = current())
            s->checksumErrors.fetch_add(1, std::memory_order_relaxed);
    }
    static void noteRetry() {
        if (CLinkStats* s = current())
            s->retries.fetch_add(1, std::memory_order_relaxed);
    }

    // Binds `stats` to the calling thread for the life of this object.
    class Bind {
    public:
        explicit Bind(CLinkStats& stats) : m_previous(current()) { current() = &stats; }
        ~Bind() { current() = m_previous; }
        Bind(const Bind&) = delete;
        Bind& operator=(const Bind&) = delete;

    private:
        CLinkStats* m_previous;
    };

private:
    static CLinkStats*& current() {
        static thread_local CLinkStats* bound = nullptr;
        return bound;
    }
};
