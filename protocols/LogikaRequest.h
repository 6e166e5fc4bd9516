// SPDX-License-Identifier: Apache-2.0
#pragma once
// One named request to a Logika meter, as the drivers keep them in tables.
// The same descriptor serves the M4 (M4::CM4) and the SPbus (SpNet::CSpNet) layers.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

struct LogikaRequest {
    std::string name;        // shown quoted in every protocol log line
    uint32_t function = 0;   // protocol function code
    uint8_t channel = 0;
    uint16_t param = 0;      // parameter number (M4 sends 15 bits of it)
    // M4 archive read: [0], [1] archive selector bytes, [2] start, [3] end (Unix seconds, local time).
    // SPbus: [0] channel digit, [1] parameter number, [2], [3] by function (array index and
    // count; the two times of a journal read, end first; the time of a slice).
    std::array<uint32_t, 4> args{};
};

// How the protocol layers pause (after a send, between attempts, after a wake-up).
// Empty means a real sleep; tests hand in a recorder that returns at once.
using ProtocolSleep = std::function<void(std::chrono::milliseconds)>;
