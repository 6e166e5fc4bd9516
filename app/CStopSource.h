// SPDX-License-Identifier: Apache-2.0
#pragma once
// Where the main loop learns that the process is to stop, and how it sleeps
// between its steps: the signal watcher in the daemon, a scripted one in tests.

#include <chrono>

class CStopSource {
public:
    virtual ~CStopSource() = default;
    virtual bool stopRequested() const = 0;
    // Sleeps up to `d` or until a stop is asked; true when stopping.
    virtual bool waitStop(std::chrono::milliseconds d) = 0;
};
