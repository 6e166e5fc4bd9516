// SPDX-License-Identifier: Apache-2.0
#pragma once
// One value as a driver hands it to the host service: name, value already
// formatted as text, dimension (a unit name of DataCodes), OPC quality code,
// error text, system identifier and the meter's time of the value.

#include <string>

struct CValueRecord {
    std::string name;
    std::string value;
    std::string dim;
    int quality = 192;  // OPC "good"
    std::string error;
    std::string sys;
    long long timestamp = 0;  // Unix seconds
};
