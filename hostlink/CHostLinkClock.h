// SPDX-License-Identifier: Apache-2.0
#pragma once
// Time as the host link's retry loop sees it: a monotonic "now" and a pause
// that a raised stop flag cuts short. Tests hand the link a clock of their
// own, so that an outage of ten minutes takes no ten minutes to test.

#include <atomic>
#include <chrono>

class CHostLinkClock {
public:
    using time_point = std::chrono::steady_clock::time_point;

    virtual ~CHostLinkClock() = default;

    virtual time_point now() const;
    // Pauses for `d`; returns false as soon as `*cancel` is raised (looked at
    // every 50 ms), true when the pause ran out. `cancel` may be null.
    virtual bool sleepFor(std::chrono::milliseconds d, const std::atomic<bool>* cancel);
};
