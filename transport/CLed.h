// SPDX-License-Identifier: Apache-2.0
#pragma once
// One front-panel LED that flashes on serial traffic. The transport only raises
// a request flag (Blink(true)); this object's own thread turns the request into
// a flash by writing '1' and, after the on-time, '0' to the LED's control file,
// so a blink never delays the bytes on the line.
//
// Requests that arrive while the LED is lit are absorbed into that flash: a
// burst of bytes gives one flash of the on-time, then at least 10 ms of dark
// before the next one can start.
//
// A control file that cannot be opened (no "/proc/leds/" on a development
// machine) leaves the LED dark: no writes are attempted and nothing is logged
// per blink.

#include <atomic>
#include <cstdint>
#include <string>

#include "core/myThreadAttached.h"
#include "core/CUniqueFd.h"

class CLed : public myThreadAttached {
public:
    // Opens (truncating) the control file and switches the LED off. The owner
    // calls Start() to run the flashing thread.
    CLed(std::string path, uint32_t onTimeUs);
    // Stops and joins the thread, switches the LED off and closes the file.
    ~CLed() override;

    // true: asks for a flash and returns at once. false: cancels a pending
    // request (switching the LED off) if there is one.
    void Blink(bool request);

    bool hasFile() const { return m_fd.get() >= 0; }

protected:
    void functionThread() override;

private:
    void writeState(char state);

    const std::string m_path;
    const uint32_t m_onTimeUs;
    CUniqueFd m_fd;
    std::atomic<uint8_t> m_request{0};
};
