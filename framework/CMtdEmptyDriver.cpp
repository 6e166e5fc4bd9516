#include "framework/CMtdEmptyDriver.h"

CMtdEmptyDriver::CMtdEmptyDriver() = default;

CMtdEmptyDriver::~CMtdEmptyDriver() { StopPolling(); }
