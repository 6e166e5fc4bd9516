// SPDX-License-Identifier: Apache-2.0
#include "framework/CMtdClock.h"

time_t CMtdClock::now() const { return std::time(nullptr); }

std::chrono::system_clock::time_point CMtdClock::deadlineFor(time_t target) const {
    return std::chrono::system_clock::from_time_t(target);
}
