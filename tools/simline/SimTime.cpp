// SPDX-License-Identifier: Apache-2.0
#include "SimTime.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

bool parseSimTime(const char* text, std::time_t& out) {
    char* end = nullptr;
    const long long n = std::strtoll(text, &end, 10);
    if (*text != '\0' && *end == '\0') {
        out = static_cast<std::time_t>(n);
        return true;
    }
    struct tm tm {};
    if (std::sscanf(text, "%d-%d-%d,%d:%d:%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                    &tm.tm_sec) != 6)
        return false;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    out = timegm(&tm);
    return true;
}

std::time_t simDeviceTime(std::time_t start, std::chrono::steady_clock::time_point since, double scale) {
    const double real = std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
    return start + static_cast<std::time_t>(std::floor(real * scale));
}
