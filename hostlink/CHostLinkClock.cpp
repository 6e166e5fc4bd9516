// SPDX-License-Identifier: Apache-2.0
#include "hostlink/CHostLinkClock.h"

#include <algorithm>
#include <thread>

namespace {

// The stop flag has no wake-up of its own; a slice this long keeps a stop
// prompt without waking an idle daemon more than twenty times a second.
constexpr std::chrono::milliseconds kSlice{50};

}  // namespace

CHostLinkClock::time_point CHostLinkClock::now() const
{
    return std::chrono::steady_clock::now();
}

bool CHostLinkClock::sleepFor(std::chrono::milliseconds d, const std::atomic<bool>* cancel)
{
    const time_point end = now() + d;
    for (;;) {
        if (cancel != nullptr && cancel->load())
            return false;
        const time_point t = now();
        if (t >= end)
            return true;
        std::this_thread::sleep_until(std::min(end, t + kSlice));
    }
}
