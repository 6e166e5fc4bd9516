// SPDX-License-Identifier: Apache-2.0
#pragma once
// What a simulator's main() does around its serving: whole numbers from the
// command line, and the wait for SIGINT or SIGTERM with the fault summary on
// SIGUSR1 and at the end.

#include <functional>
#include <string>

// A whole decimal number and nothing else.
bool simToLong(const char* text, long long& out);

// From here on SIGINT, SIGTERM and SIGUSR1 are noted for simServeUntilSignal
// and SIGPIPE is ignored; call it before announcing "ready".
void simCatchSignals();
// Blocks until SIGINT or SIGTERM; prints summary() on SIGUSR1 and once more
// before it returns, after beforeLast() when one is given (a simulator that
// stops its line first reports the counts of every byte it served).
void simServeUntilSignal(const std::function<std::string()>& summary,
                         const std::function<void()>& beforeLast = {});
