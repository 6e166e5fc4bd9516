// SPDX-License-Identifier: Apache-2.0
#pragma once
// A volume corrector on the master end of a pseudo-terminal, for tests, the
// demo and end-to-end runs: IEC 62056-21 mode C as an EK260/EK270 or a TC2xx
// answers it (sign-on, option select with baud change, R1/R3 reads, W1 writes
// behind the consumer and supplier locks, B0), with archives 3, 4, 5 and 7
// generated from a seed and the device clock.
//
// Archive data sets ("3:V.0" with "3;<from>;<to>;<records per block>") come
// one record per line, "(Npp)(ArchIdx)(2024-05-01,10:00:00)...(CRC)" CR LF,
// in blocks that end with EOT while more follow and with ETX on the last; the
// master asks for the next block with a bare ACK. The CRC is CRC-16/ARC of the
// record text up to the ")" before it.
//
// The line is a CSimLine (real timing unless turned off) and its damage comes
// from CLineFaults: a seeded share of the exchanges gets one fault each, and a
// test can put a chosen fault on a chosen archive block. The meter behaves as
// a device does: an ACK moves it to the next block whatever the line did to
// the last one, a NAK makes it send the last block again, a request the line
// garbled is not heard at all. Nothing here comes from the daemon's protocol
// code: the record check sum and the event codes are the simulator's own.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/metersim/SMeterSimConfig.h"
#include "tools/simline/CLineFaults.h"
#include "tools/simline/CSimLine.h"

class CMeterSim {
public:
    // Lines for the operator: "pty <path>" on every (re)opened terminal, "W1 <addr>(<value>)" for writes.
    using Reporter = std::function<void(const std::string& line)>;

    explicit CMeterSim(SMeterSimConfig config, Reporter reporter = Reporter());
    ~CMeterSim();
    CMeterSim(const CMeterSim&) = delete;
    CMeterSim& operator=(const CMeterSim&) = delete;

    // Opens the pseudo-terminal; `link` (optional) becomes a symlink to its slave.
    bool open(const std::string& link = std::string());
    // Serves on a thread of its own until stop() or destruction.
    bool start();
    void stop();

    std::string slavePath() const;
    // Line speed the simulator is using now (it follows the option select).
    int currentBaud() const { return m_baud.load(); }
    // The master side's descriptor, for tests that read its termios.
    int masterFd() const;
    // Value of a register as a read would return it (without the unit).
    std::string registerValue(const std::string& address) const;
    int requestsSeen() const { return m_requests.load(); }
    // Session ends (B0) received.
    int breaksSeen() const { return m_breaks.load(); }
    // Faults the line played so far, as one line "exchanges=N changed_byte=N ...".
    std::string faultSummary() const { return m_faults.summary(); }
    const CLineFaults& faults() const { return m_faults; }

    // Record texts of an archive (3, 4, 5, 7) between two device times, inclusive.
    std::vector<std::string> archiveRecords(int archive, std::time_t from, std::time_t to) const;
    std::time_t deviceNow() const;
    bool isTc() const;

private:
    struct Frame;
    void serve();
    bool openPty();
    void handle(const std::string& frame);
    void handleSignOn(const std::string& frame);
    void handleOption(const std::string& frame);
    void handleCommand(const std::string& frame);
    void handleArchive(char cmd, const std::string& address, const std::string& data);
    void sendBlock();
    void sendData(const std::string& body, bool last);
    // One answer through the line's faults; `block` for archive blocks, which chosen faults aim at.
    void send(std::string bytes, bool block = false);
    void setLineSpeed(int baud);
    void hangup();
    std::string readRegister(const std::string& address, bool withUnit) const;
    bool writeRegister(const std::string& address, const std::string& value, std::string& error);
    void report(const std::string& line);

    SMeterSimConfig m_cfg;
    Reporter m_reporter;
    std::string m_link;
    std::unique_ptr<CSimLine> m_line;  // replaced on a hang-up
    mutable std::mutex m_lineMutex;    // guards m_line against stop() and test readers
    std::atomic<bool> m_stopping{false};
    CLineFaults m_faults;
    mutable std::mutex m_mutex;  // guards m_written against test readers
    std::thread m_thread;
    std::atomic<int> m_baud{9600};
    std::atomic<int> m_requests{0};
    std::atomic<int> m_breaks{0};
    std::time_t m_clockStart = 0;
    std::chrono::steady_clock::time_point m_steadyStart;

    // Session state of the protocol (serving thread only).
    enum class State { Idle, SignedOn, Programming };
    State m_state = State::Idle;
    std::atomic<bool> m_consumerOpen{false};
    std::atomic<bool> m_supplierOpen{false};
    std::map<std::string, std::string> m_written;
    std::vector<std::string> m_pending;  // archive lines not yet sent
    std::string m_lastBlock;             // what a NAK brings again
    int m_blocksSent = 0;                // archive blocks sent, repeats included
    CLineFaults::Kind m_fault = CLineFaults::None;  // for the answer to the request in hand
    size_t m_perBlock = 1;
    bool m_inArchive = false;
    bool m_hungUp = false;
    int m_replies = 0;
    int m_silentLeft = -1;
};
