// SPDX-License-Identifier: Apache-2.0
#pragma once
// Times on the simulators' command lines (--now, --dump-until): Unix seconds,
// or the device clock's reading "YYYY-MM-DD,hh:mm:ss" taken as UTC.

#include <chrono>
#include <ctime>

bool parseSimTime(const char* text, std::time_t& out);

// The simulated device's clock: `start` at the steady instant `since`, then
// running `scale` times as fast as real time, in whole seconds.
std::time_t simDeviceTime(std::time_t start, std::chrono::steady_clock::time_point since, double scale);
