// SPDX-License-Identifier: Apache-2.0
#pragma once
// Reading the host service's port parameters (all text) the way both line
// transports need them.

#include <cstdint>
#include <string>

#include "transport/CTransport.h"

namespace portparam {

// Base-10 value of the leading digits, like the host service's numbers;
// `fallback` when the parameter is absent or does not start with a number.
// 64 bits wide on every machine, so a controller with a 32-bit long reads the
// same values as the build machine.
long long number(const PortParams& params, const char* key, long long fallback);
// The text, "" when absent.
std::string text(const PortParams& params, const char* key);
// "timeout" in ms; `fallback` when absent, and (with an Err line naming `owner`) when negative.
uint32_t timeoutMs(const PortParams& params, uint32_t fallback, const char* owner);

}  // namespace portparam
