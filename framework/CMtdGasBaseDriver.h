// SPDX-License-Identifier: Apache-2.0
#pragma once
// Base of the gas drivers: passport values requested through the passport
// file, the contract hour, and the controller's RS-232 relay outputs.

#include <ctime>
#include <map>
#include <string>

#include "framework/CMtdBaseDriver.h"

namespace gas {

class CMtdGasBaseDriver : public CMtdBaseDriver {
public:
    CMtdGasBaseDriver();
    ~CMtdGasBaseDriver() override;

protected:
    // Contract hour as the hour of day of the last stored daily record.
    int GetRateHour(int n);
    // Switches relay output n (1 or 2) through the sensors service.
    void SetRs232State(int n, bool state);
    // Reads the passport file "/tmp/gmd_set_value_<id>" (name -> value text) and
    // removes it. False when there is no file or it was refused (logged; removed,
    // unless it came from an untrusted owner).
    bool GetGasPassportParams(std::map<std::string, std::string>& values);
    void RemovePasportFile();

    // The meter's clock runs in local time of its own zone: configuration
    // "pu_TZ" (hours east of UTC), else the server's "srv_TZ", else UTC.
    int deviceTzHours() const;
    // A time read from the meter (its local calendar fields) as Unix seconds.
    time_t fromDeviceTime(int year, int month, int day, int hour, int minute, int second) const;
    // Unix seconds as the meter's local calendar fields.
    struct tm toDeviceTime(time_t t) const;
    // Unix seconds as the meter's clock reads them: "YYYY-MM-DD,hh:mm:ss".
    std::string deviceTimeText(time_t t) const;
    // One published value: `unit` is a DataUnit (DU_UNKNOWN publishes no dimension).
    CValueRecord makeValue(const std::string& name, const std::string& value, uint32_t unit, time_t timestamp,
                           const std::string& sys) const;
};

// A row of a driver's table of published current values: the read that gets
// it, the published name, the DataUnit it is published in, and whether it is a
// pressure (converted to kgf/cm2 from the meter's own unit).
struct CurrentValue {
    const char* request;
    const char* name;
    uint32_t unit;
    bool pressure;
};

}  // namespace gas
