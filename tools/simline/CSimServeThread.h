// SPDX-License-Identifier: Apache-2.0
#pragma once
// The thread a simulator serves its line on: started once, ended by stopping
// the line (which wakes every read and pause) and joining.

#include <functional>
#include <thread>
#include <utility>

#include "tools/simline/CSimLine.h"

class CSimServeThread {
public:
    explicit CSimServeThread(CSimLine& line) : m_line(line) {}
    ~CSimServeThread() { stop(); }
    CSimServeThread(const CSimServeThread&) = delete;
    CSimServeThread& operator=(const CSimServeThread&) = delete;

    bool serving() const { return m_thread.joinable(); }

    // False when it is already serving.
    bool start(std::function<void()> serve) {
        if (m_thread.joinable())
            return false;
        m_thread = std::thread(std::move(serve));
        return true;
    }

    void stop() {
        m_line.stop();
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    CSimLine& m_line;
    std::thread m_thread;
};
