// SPDX-License-Identifier: Apache-2.0
#include "protocols/Exchange.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace {

using exchange::Outcome;

// The outcomes of the attempts in turn; what the loop returns, how often it
// paused, and the lines it wrote.
TEST(Exchange, AttemptsPausesAndTexts) {
    struct Case {
        const char* legend;
        bool pauseAfterLast;
        std::vector<Outcome> outcomes;
        bool ok;
        int attempts, pauses, warnings, errors;
    } cases[] = {
        {"first attempt answers", true, {Outcome::Ok}, true, 1, 0, 0, 0},
        {"answers at the third", true, {Outcome::Failed, Outcome::Failed, Outcome::Ok}, true, 3, 2, 2, 0},
        {"never answers, pause after the last too", true, {Outcome::Failed, Outcome::Failed, Outcome::Failed}, false, 3,
         3, 3, 1},
        {"never answers, pauses only between", false, {Outcome::Failed, Outcome::Failed, Outcome::Failed}, false, 3, 2,
         3, 1},
        {"a refusal is not retried", true, {Outcome::Failed, Outcome::Final}, false, 2, 1, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.legend);
        test_support::LogCapture log;
        exchange::Policy policy;
        policy.pauseAfterLast = c.pauseAfterLast;
        policy.failedAttempt = "X::SendRequest('%s') - ATTEMPT N%d IS FAILED !!!";
        policy.gaveUp = "X::SendRequest('%s') - NO VALID REPLY AFTER %d ATTEMPTS";
        int attempts = 0, pauses = 0;
        const bool ok = exchange::run(policy, mtd::LogContext{7, "meter"}, "Read", [&](int i) {
            ++attempts;
            return c.outcomes[static_cast<size_t>(i)];
        }, [&](std::chrono::milliseconds) { ++pauses; });
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(attempts, c.attempts);
        EXPECT_EQ(pauses, c.pauses);
        EXPECT_EQ(log.countContaining("IS FAILED"), c.warnings);
        EXPECT_EQ(log.countContaining("[7][meter] X::SendRequest('Read') - NO VALID REPLY AFTER 3 ATTEMPTS"), c.errors);
        if (c.warnings)
            EXPECT_TRUE(log.contains("[7][meter] X::SendRequest('Read') - ATTEMPT N0 IS FAILED !!!"));
    }
}

}  // namespace
