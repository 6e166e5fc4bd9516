// SPDX-License-Identifier: Apache-2.0
#pragma once
// What the Logika correctors have in common, whatever the line protocol (M4
// with its parameter reads, the older M4 dialect with memory pages, SPbus):
// the first configured system as the record system, the device clock text,
// the time argument the protocol layers want, the serial-number check, the
// pressure conversion to kgf/cm2 and the refusal of passport writes.
//
// None of these meters has a closing frame: a session (where there is one)
// ends by the meter's own silence time-out, so session_close() sends nothing.
//
// Adding a model: its driver class holds its request table, its parsers and
// its wire notes, derives from this class, and gets a row in the factory's
// model table (drivers/DriverFactory.cpp).

#include <cstdint>
#include <ctime>
#include <string>

#include "framework/CMtdGasBaseDriver.h"

namespace logika {

class CLogikaBaseDriver : public gas::CMtdGasBaseDriver {
public:
    // Nothing to send: the meter forgets the session after a minute of silence.
    void session_close() override {}
    // The meter's clock reading, "YYYY-MM-DD,hh:mm:ss".
    std::string clockText(time_t t) const override { return deviceTimeText(t); }

protected:
    // The first entry of "systems" (default "1"); sets m_sys and returns it.
    const std::string& takeSystem();
    // A value the driver converted, as published: five decimals.
    static std::string formatNumber(double v);
    // Unix seconds as the device clock reads them: "YYYY-MM-DD,hh:mm:ss".
    std::string deviceTimeText(time_t t) const;
    // The protocol layers break a time word down in the process's local time:
    // the word whose local fields are the device's clock reading of `t`.
    uint32_t protocolTimeArg(time_t t) const;
    // Throws CWrongPacketException (after the log line) when a serial number
    // is configured and the meter's differs.
    void checkSerial(const std::string& read) const;
    // Pressure unit code of the M4 meters (0 kgf/cm2, 1 MPa, 2 bar; assumed,
    // see the drivers' notes) to the factor to kgf/cm2; false (logged under
    // `function`) for an unknown code.
    bool m4PressureFactor(int code, const char* function, double& factor) const;
    // The device time could not be had: logs "<driver>::<function>() - <what>"
    // and throws CNoDateTimeException, which ends the cycle (nothing is stored
    // against a clock that was not read).
    [[noreturn]] void noDeviceTime(const char* function, const char* what) const;
    // Reads and removes a waiting passport file: these meters take parameter
    // writes only at their keyboard.
    void refusePassport(const char* model, int version);

    std::string m_sys = "1";
};

}  // namespace logika
