// SPDX-License-Identifier: Apache-2.0
#pragma once
// The wall clock of the polling thread. The archive schedule and the data_rate
// wait are defined on wall-clock seconds (device archives are stamped in wall
// time), so they read the time here; tests hand the driver a clock they move by
// hand and then wake the driver thread.

#include <chrono>
#include <ctime>

class CMtdClock {
public:
    virtual ~CMtdClock() = default;

    virtual time_t now() const;
    // The real-time point at which a thread waiting for `target` should look at
    // the clock again. A hand-moved clock answers "much later": the thread then
    // only wakes when it is woken explicitly.
    virtual std::chrono::system_clock::time_point deadlineFor(time_t target) const;
};
