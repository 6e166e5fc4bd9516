// SPDX-License-Identifier: Apache-2.0
#pragma once
// Times on the simulators' command lines (--now, --dump-until): Unix seconds,
// or the device clock's reading "YYYY-MM-DD,hh:mm:ss" taken as UTC.

#include <ctime>

bool parseSimTime(const char* text, std::time_t& out);
