// SPDX-License-Identifier: Apache-2.0
#pragma once
// The driver of a model the factory does not know: the polling cycle runs (the
// port is opened, an empty list of current values is published every data_rate
// seconds) but no device operation talks to the meter.

#include "framework/CMtdBaseDriver.h"

class CMtdEmptyDriver : public CMtdBaseDriver {
public:
    CMtdEmptyDriver();
    ~CMtdEmptyDriver() override;

    const char* driverName() const override { return "CMtdEmptyDriver"; }
};
