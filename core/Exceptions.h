// SPDX-License-Identifier: Apache-2.0
#pragma once
// Exceptions that leave a device driver and end a polling cycle.

#include <stdexcept>
#include <string>

struct CDisconnectException : std::runtime_error {
    explicit CDisconnectException(const std::string& what = "disconnect") : std::runtime_error(what) {}
};
struct CNoDateTimeException : std::runtime_error {
    explicit CNoDateTimeException(const std::string& what = "no date/time") : std::runtime_error(what) {}
};
struct CWrongPacketException : std::runtime_error {
    explicit CWrongPacketException(const std::string& what = "wrong packet") : std::runtime_error(what) {}
};
struct SerialErrorException : std::runtime_error {
    explicit SerialErrorException(const std::string& what = "serial error") : std::runtime_error(what) {}
};
