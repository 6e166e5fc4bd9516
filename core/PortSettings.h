// SPDX-License-Identifier: Apache-2.0
#pragma once
// The serial line as the host service describes it in "port_params" (all text:
// "protocol", "name", "speed", "data", "parity", "stop", "timeout"), parsed once
// into numbers here and shared by the connector, the protocol layers and the
// drivers. Numbers are base 10, read from their leading digits as the host
// service writes them ("9600", "9600 Bd" alike).

#include <cstdint>
#include <map>
#include <string>

using PortParams = std::map<std::string, std::string>;

struct PortSettings {
    std::string protocol;  // "modbus" for a Modbus RTU line, anything else a plain UART
    std::string name;      // the device path; "" when not given
    bool hasName = false;
    long speed = 0;        // baud; 0 when absent or not a number (a line that cannot change speed)
    long dataBits = 8;
    std::string parity;    // exact letters: "E", "O"; anything else is no parity
    int stopBits = 1;      // "2" gives two, anything else one
    long timeoutMs = -1;   // the per-byte silence time-out as given (may be negative)
    bool timeoutGiven = false;

    static PortSettings parse(const PortParams& params);

    long speedOr(long fallback) const { return speed > 0 ? speed : fallback; }
    // The time-out in ms; `fallback` when absent, and (with an Err line naming
    // `owner`) when negative.
    uint32_t timeoutOr(uint32_t fallback, const char* owner) const;
};
