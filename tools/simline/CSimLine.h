// SPDX-License-Identifier: Apache-2.0
#pragma once
// A meter's end of a serial line, for the simulators: the master side of a
// pseudo-terminal whose slave side the daemon opens as its port.
//
// The simulator keeps a descriptor of the slave side open itself, so the
// master never sees a hang-up when the daemon closes and reopens the port.
// With timing on, bytes leave at the line's real pace (frame bits / baud per
// character, 10 bits for 8N1 and 7E1), so time-outs, late bytes and the cost
// of a long transfer behave as on a real line. stop() wakes every wait.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/CUniqueFd.h"

class CSimLine {
public:
    struct Options {
        int baud = 9600;
        int frameBits = 10;
        bool timing = true;
        std::string link;  // symlink made to the slave side, when set
    };
    // A line of the usual 10-bit frames (start, 8 data bits, stop).
    static Options lineOptions(int baud, bool timing, std::string link) {
        Options o;
        o.baud = baud;
        o.timing = timing;
        o.link = std::move(link);
        return o;
    }

    explicit CSimLine(Options options);
    ~CSimLine();
    CSimLine(const CSimLine&) = delete;
    CSimLine& operator=(const CSimLine&) = delete;

    // Opens the pseudo-terminal (raw, both sides); false when the system refuses.
    bool open();
    const std::string& slavePath() const { return m_slavePath; }
    int fd() const { return m_master.get(); }

    // The pace follows the line speed, e.g. after an IEC 61107 option select.
    void setBaud(int baud);
    int baud() const { return m_baud.load(); }

    // Bytes the master sent: > 0 the count, 0 on time-out or stop, -1 on error.
    // timeoutMs < 0 waits until something comes or stop().
    ssize_t read(uint8_t* buf, size_t cap, int timeoutMs);
    // Writes at the line's pace when timing is on; false on error or stop.
    bool write(const uint8_t* data, size_t n);
    bool write(const std::vector<uint8_t>& bytes) { return write(bytes.data(), bytes.size()); }
    // Drops what the master sent and nobody has read yet.
    void drainInput();
    // Waits `d`; false when stop() ended the wait.
    bool pause(std::chrono::milliseconds d);

    void stop();
    bool stopped() const { return m_stopped.load(); }

private:
    // Waits for the master side or the stop descriptor; >0 readable, 0 time-out, -1 stop or error.
    int waitReadable(int timeoutMs);

    Options m_options;
    std::atomic<int> m_baud;
    std::atomic<bool> m_stopped{false};
    CUniqueFd m_master;
    CUniqueFd m_slaveKeep;
    CUniqueFd m_stopFd;
    std::string m_slavePath;
};
