// SPDX-License-Identifier: Apache-2.0
#include "core/PortSettings.h"

#include <cerrno>
#include <cstdlib>

#include "core/logger.h"

namespace {

// Base-10 value of the leading digits; `fallback` when absent or not a number.
long number(const PortParams& params, const char* key, long fallback, bool* present = nullptr) {
    auto it = params.find(key);
    if (present)
        *present = false;
    if (it == params.end())
        return fallback;
    const char* text = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text, &end, 10);
    if (end == text || errno == ERANGE)
        return fallback;
    if (present)
        *present = true;
    return value;
}

std::string text(const PortParams& params, const char* key) {
    auto it = params.find(key);
    return it == params.end() ? std::string() : it->second;
}

}  // namespace

PortSettings PortSettings::parse(const PortParams& params) {
    PortSettings s;
    s.protocol = text(params, "protocol");
    s.hasName = params.count("name") != 0;
    s.name = text(params, "name");
    s.speed = number(params, "speed", 0);
    s.dataBits = number(params, "data", 8);
    s.parity = text(params, "parity");
    s.stopBits = text(params, "stop") == "2" ? 2 : 1;
    bool given = false;
    const long timeout = number(params, "timeout", -1, &given);
    // A negative time-out is kept as it came, so that timeoutOr() can say so.
    s.timeoutMs = given ? timeout : -1;
    s.timeoutGiven = given;
    return s;
}

uint32_t PortSettings::timeoutOr(uint32_t fallback, const char* owner) const {
    if (!timeoutGiven)
        return fallback;
    if (timeoutMs < 0) {
        MTD_LOG(Err, "%s - negative timeout %ld ms, using %u ms.", owner, timeoutMs, fallback);
        return fallback;
    }
    // Compared unsigned: with a 32-bit long (armhf) UINT32_MAX cast to long is -1,
    // and every time-out would become endless.
    return static_cast<unsigned long long>(timeoutMs) > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(timeoutMs);
}
