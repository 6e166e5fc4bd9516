// SPDX-License-Identifier: Apache-2.0
#pragma once
// A Modbus RTU slave on a pseudo-terminal, serving the registers a template
// (the daemon's register-map file) describes with values that follow the
// clock: totals grow steadily, other values wander around a level, bits
// toggle every ten minutes, and a readable archive shows the same model at
// each record's time. Written from the published Modbus documents alone: its own
// frame reader and CRC, no libmodbus, nothing of the daemon.
//
// Like a real slave it keeps quiet on a damaged request or one for another
// slave id, refuses registers it has no map for with exception 02 (also the
// addresses given with `refuse`), answers 06 (busy) to every `busyEvery`-th
// request, and 01 to a function it does not know.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"
#include "tools/simline/CSimServeThread.h"

struct SModbusSimConfig {
    std::string templateFile;
    int slave = 0;               // 0: the template's "slave"
    std::string serial = "1234567";
    std::time_t now = 0;         // device clock at start (its local wall time as UTC); 0 = system time
    double clockScale = 1.0;     // device seconds per real second
    int rateHour = 0;            // contract hour of the daily archive
    int baud = 9600;
    bool timing = true;
    std::set<int> refuse;        // holding/input registers answered with 02
    int busyEvery = 0;           // every N-th request is answered 06 (0 = never)
    double faultShare = 0;
    uint32_t faultSeed = 1;
};

namespace Json {
class Value;
}

class CModbusSim {
public:
    explicit CModbusSim(SModbusSimConfig config, std::string link = std::string());
    ~CModbusSim();
    CModbusSim(const CModbusSim&) = delete;
    CModbusSim& operator=(const CModbusSim&) = delete;

    // Reads the template; false with `error` set.
    bool load(std::string& error);
    bool open();
    bool start();
    void stop();
    const std::string& slavePath() const { return m_line.slavePath(); }

    std::time_t deviceNow() const;
    // The model's value (in the template's units, after scale and offset) of
    // value `name` at device time t; NaN for an unknown name.
    double modelValue(const std::string& name, std::time_t t) const;
    std::string faultSummary() const { return m_faults.summary(); }
    int requestsSeen() const { return m_requests.load(); }

    // CRC-16/MODBUS of a frame, sent low byte first.
    static uint16_t crc(const uint8_t* p, size_t n);

    // The answer (without CRC) to one request PDU, e.g. {0x03, 0, 100, 0, 2};
    // exposed so that tests can check the register encodings directly.
    std::vector<uint8_t> answer(const std::vector<uint8_t>& pdu);

    // A value's place and encoding, as the template has it.
    struct Item;
    struct Archive;

private:
    bool loadTemplate(const Json::Value& root, std::string& error);
    void serve();
    void handle(const std::vector<uint8_t>& frame);
    bool readRegisters(int kind, int address, int count, std::vector<uint16_t>& out);
    bool archiveWindow(const Archive& a, int address, int count, int kind, std::vector<uint16_t>& out, bool& mapped);

    SModbusSimConfig m_cfg;
    CSimLine m_line;
    CLineFaults m_faults;
    CSimServeThread m_serving{m_line};
    std::atomic<int> m_requests{0};
    std::chrono::steady_clock::time_point m_steadyStart;
    int m_slave = 1;
    std::vector<std::shared_ptr<Item>> m_items;
    std::vector<std::shared_ptr<Archive>> m_archives;
};
