// SPDX-License-Identifier: Apache-2.0
#pragma once
// One named IEC 61107 exchange as a driver describes it in its request tables.

#include <cstdint>
#include <string>

struct SGost61107Request {
    // What the request frame is; the values are the ones drivers keep in their tables.
    enum Kind : uint32_t {
        SignOn = 0,        // "/?" address "!" CR LF
        OptionSelect = 1,  // ACK '0' <speed symbol> '1' CR LF
        ReadR1 = 2,        // SOH "R1" STX address "(" data ")" ETX BCC
        ReadR3 = 3,        // SOH "R3" STX address "(" data ")" ETX BCC
        WriteW1 = 4,       // SOH "W1" STX address "(" data ")" ETX BCC
        Break = 5,         // SOH "B0" ETX BCC
        Acknowledge = 6,   // ACK alone: asks for the next block of a data set
        Repeat = 7,        // NAK alone: asks for the last block of a data set again
    };

    std::string name;     // quoted in every log line of the exchange
    uint32_t kind = ReadR1;
    std::string address;  // sign-on: device address; commands: register such as "4:170.0"
    std::string data;     // between the parentheses: a password, a value, an archive window
};
