// SPDX-License-Identifier: Apache-2.0
#include "framework/CMtdEmptyDriver.h"

CMtdEmptyDriver::CMtdEmptyDriver() = default;

CMtdEmptyDriver::~CMtdEmptyDriver() { StopPolling(); }
