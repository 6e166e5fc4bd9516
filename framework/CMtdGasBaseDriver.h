#pragma once
// Base of the gas drivers: passport values requested through the passport
// file, the contract hour, and the controller's RS-232 relay outputs.

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
    // removes it. False when there is no file or it was refused (logged, removed).
    bool GetGasPassportParams(std::map<std::string, std::string>& values);
    void RemovePasportFile();
};

}  // namespace gas
