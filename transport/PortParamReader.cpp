// SPDX-License-Identifier: Apache-2.0
#include "transport/PortParamReader.h"

#include <cerrno>
#include <cstdlib>

#include "core/logger.h"

namespace portparam {

long long number(const PortParams& params, const char* key, long long fallback) {
    auto it = params.find(key);
    if (it == params.end())
        return fallback;
    const char* textValue = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(textValue, &end, 10);
    if (end == textValue || errno == ERANGE)
        return fallback;
    return value;
}

std::string text(const PortParams& params, const char* key) {
    auto it = params.find(key);
    return it == params.end() ? std::string() : it->second;
}

uint32_t timeoutMs(const PortParams& params, uint32_t fallback, const char* owner) {
    const long long value = number(params, "timeout", fallback);
    if (value < 0) {
        MTD_LOG(Err, "%s - negative timeout %lld ms, using %u ms.", owner, value, fallback);
        return fallback;
    }
    return value > static_cast<long long>(UINT32_MAX) ? UINT32_MAX : static_cast<uint32_t>(value);
}

}  // namespace portparam
