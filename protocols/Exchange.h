// SPDX-License-Identifier: Apache-2.0
#pragma once
// The request loop every line protocol shares: send, read and check the reply;
// on a failure pause and try again, a few times; then give up with one line.
// What differs between the protocols is their policy, and it is written here
// once per protocol rather than as five copies of the loop:
//
//   protocol   attempts  pause after a failure           counted  Warning per failure
//   IEC 61107  3         100 ms, also after the last     yes      "ATTEMPT N%d IS FAILED"
//   M4         3         the timing's, also after last   no       -
//   M4 memory  3         the timing's, also after last   no       -
//   SpNet      3         none                            yes      "WRONG ATTEMPT N %d"
//   Modbus     3         the configured one, between     no       -
//
// The pause after the last failure lets the rest of a damaged reply arrive
// before whatever the driver sends next flushes the line.

#include <chrono>
#include <cstdio>
#include <functional>

#include "core/logger.h"
#include "transport/CLinkStats.h"

namespace exchange {

enum class Outcome {
    Ok,      // a checked reply
    Failed,  // nothing usable came: try again
    Final,   // the meter answered with a refusal, or the request cannot be sent: no retry
};

struct Policy {
    int attempts = 3;
    std::chrono::milliseconds pause{0};
    bool pauseAfterLast = true;
    bool countRetries = false;  // in the link statistics
    // printf formats, given the request name and the attempt's number (from 0);
    // `failedAttempt` may be null. `gaveUp` gets the name and the attempts.
    const char* failedAttempt = nullptr;
    const char* gaveUp = "%s";
};

// Runs `attempt` (Outcome(int number)) under `policy`; `pause` sleeps (empty:
// the protocol never pauses between attempts).
template <class Attempt>
bool run(const Policy& policy, const mtd::LogContext& log, const char* name, Attempt&& attempt,
         const std::function<void(std::chrono::milliseconds)>& pause) {
    char text[256];
    for (int i = 0; i < policy.attempts; ++i) {
        switch (attempt(i)) {
        case Outcome::Ok: return true;
        case Outcome::Final: return false;
        case Outcome::Failed: break;
        }
        if (pause && (policy.pauseAfterLast || i + 1 < policy.attempts))
            pause(policy.pause);
        if (policy.countRetries)
            CLinkStats::noteRetry();
        if (policy.failedAttempt) {
            std::snprintf(text, sizeof text, policy.failedAttempt, name, i);
            MTD_CLOG(log, Warning, "%s", text);
        }
    }
    std::snprintf(text, sizeof text, policy.gaveUp, name, policy.attempts);
    MTD_CLOG(log, Err, "%s", text);
    return false;
}

}  // namespace exchange
