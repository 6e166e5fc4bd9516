// SPDX-License-Identifier: Apache-2.0
#pragma once
// Settings of the volume-corrector simulator: what the meter is, what it
// holds, how fast its line is and which faults it plays.

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>

struct SMeterSimConfig {
    std::string model = "EK270";        // EK260, EK270, TC210, TC215, TC220
    std::string maker = "EKM";          // three letters of the identification line
    std::string serial = "12345678";
    std::string address;                // network address of the sign-on; empty accepts any
    std::string consumerPassword = "00000000";
    std::string supplierPassword = "11111111";
    int rateHour = 6;                   // contract hour of the daily archive
    int archivePeriod = 60;             // minutes between records of the interval archive
    int kMode = 2;                      // K calculation mode (8:317.0)
    std::string pressureUnit = "bar";   // unit of the pressure registers
    std::string firmware = "2.52";
    // Register values given by address ("6:210.0" -> "1.7"); the rest are made up.
    std::map<std::string, std::string> values;
    // Answered "(#0001)" instead of a value; an archive column ("4:V.2") too.
    std::set<std::string> errorRegisters;

    int archiveDays = 3;                // archive history before the clock start
    std::time_t now = 0;                // device clock at start; 0 = the system time
    double clockScale = 1.0;            // device seconds per real second
    uint32_t seed = 1;

    int baud = 9600;                    // line speed outside a programming session
    char maxSpeedSymbol = '6';          // offered in the identification line
    bool timing = true;                 // delay every byte as the line would
    int frameBits = 10;                 // 7E1 = start + 7 + parity + stop

    int silentAfter = 0;                // go silent after this many requests (0 = never)
    int silentCount = 0;                // requests ignored while silent (0 = for ever)
    int badBccEvery = 0;                // corrupt the check byte of every Nth reply
    int dropByteEvery = 0;              // drop one byte of every Nth reply
    bool hangupInArchive = false;       // hang the line up once during an archive transfer

    // Line damage: this share (0..1) of the exchanges gets one fault, drawn from `faultSeed`.
    double faultShare = 0;
    uint32_t faultSeed = 1;
    // A chosen fault on a chosen archive block: block number (from 1, repeats
    // counted) -> CLineFaults::Kind. IgnoredRequest drops the request for that block.
    std::map<int, int> blockFaults;
    static constexpr int kHeardTwice = -1;  // a blockFaults value: the meter skips a block
    bool endlessArchive = false;        // archive blocks end with EOT for ever, the last record repeated
    // Every Nth event entry carries a code no table knows how to read (0 = never).
    int oddEventCodeEvery = 0;
};
