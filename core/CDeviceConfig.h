// SPDX-License-Identifier: Apache-2.0
#pragma once
// A device's configuration as fetched from the host service ("get_config" or
// "get_config2"): the text map of "port_params" plus the typed copies that the
// drivers read, and for "get_config2" one entry map per element of "drivers".

#include <map>
#include <string>
#include <vector>

using ConfigMap = std::map<std::string, std::string>;

struct CDeviceConfig {
    std::string meter_id;  // the identifier given with -i, sent as "heat_meter"
    ConfigMap params;      // every member of "port_params" as text, plus "systems" and "period_current"
    std::vector<ConfigMap> drivers;  // "get_config2" only, in array order

    // Typed copies, filled only when the key is present.
    std::string true_serial;
    long long serial = 0;
    std::string serial_text;
    std::string password;
    std::string password_type;
    std::string password1;
    std::string password2;
    std::string manufacturer;
    int data_rate = 0;
    int speed = 0;
    std::string alias;

    // "" when absent.
    std::string get(const std::string& key) const {
        auto it = params.find(key);
        return it == params.end() ? std::string() : it->second;
    }
    bool has(const std::string& key) const { return params.count(key) != 0; }
};
