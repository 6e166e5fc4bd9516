// SPDX-License-Identifier: Apache-2.0
#pragma once
// The plain serial transport: one UART (RS-232 or RS-485) in raw mode.
//
// The port is configured from the parameter map each time it is opened
// ("speed", "data", "parity", "stop"), so a protocol that rewrites "speed"
// and reopens the port switches the line speed. Reads wait for the read
// time-out ("timeout", 5000 ms by default) and never longer; a time-out is a
// -1 result with one Err line, not an exception. Transmit and receive traffic
// flash LEDs A and B.
//
// Only a terminal is opened: "name" must lead (links such as
// /dev/serial/by-id/... are fine) to a character device that answers isatty;
// a regular file, a FIFO or /dev/null is refused with one Err line.
//
// The read time-out measures silence, so a meter (or a bad converter) that
// trickles one byte just inside it could hold a reply open for hours. A reply
// (the reads after a write) therefore also has a deadline, counted from its
// first read: twice the read time-out plus four times the time the bytes
// written, received and asked for take at the line speed. Past it the read
// fails after one Err line and a flush of what came in; a whole silence
// time-out or a write starts a new reply.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "transport/CLed.h"
#include "transport/CTransport.h"
#include "core/CUniqueFd.h"

struct termios;

class CRSConnector : public CTransport {
public:
    // The raw-mode line settings open_device() applies for `params` ("speed",
    // "data", "parity", "stop") and the read time-out: all other flags zero.
    static void lineSettings(const PortSettings& settings, uint32_t timeoutMs, termios& tio);

    explicit CRSConnector(const PortSettings& settings, const LedPaths& leds = LedPaths());
    ~CRSConnector() override;
    CRSConnector(const CRSConnector&) = delete;
    CRSConnector& operator=(const CRSConnector&) = delete;

    int WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink) override;
    int ReadBuffer(unsigned char* buffer, uint16_t length, bool blink) override;
    int ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) override;
    // Opens "name" and sets raw mode with the configured line settings; false
    // (with a Crit line) when the device cannot be opened. Reopening replaces
    // the descriptor held.
    bool open_device() override;
    void close_device() override;
    int FlushBuffers() override;
    int DrainOutput() override;
    void SetTimeout(uint32_t timeout_ms) override;
    uint32_t GetTimeout() const override { return m_timeoutMs; }
    bool is_open() const override { return m_fd.get() > 0; }
    void SetLengthByteMode(int mode) override { m_lengthByteMode = mode; }
    PortSettings& settings() override { return m_settings; }
    // Drivers sharing the line set and clear this from their own threads.
    void SetAbortFlag(const std::atomic<bool>* flag) override { m_abort.store(flag); }

    const std::string& devicePath() const { return m_path; }

private:
    using Clock = std::chrono::steady_clock;
    // Waits up to `timeout_ms` for input: the poll result (1 readable, 0 time-out, -1 error).
    int waitReadable(uint32_t timeout_ms) const;
    // waitReadable within the reply's deadline, for a read of `wanted` more
    // bytes with silence time-out `timeout_ms`: 0 also (after one Err line and
    // an input flush) when the reply has run out of time.
    int waitReply(uint32_t timeout_ms, uint16_t wanted);
    // Starts the deadline of a new reply, counting the request just sent.
    void startReply();

    PortSettings m_settings;
    std::string m_path;
    CUniqueFd m_fd;
    uint32_t m_timeoutMs;
    int m_lengthByteMode = 0;
    // Microseconds one character takes on the line (start, data, parity, stop bits).
    uint32_t m_charUs = 1146;
    // The reply in progress (polling thread only).
    Clock::time_point m_replyStart{};
    bool m_replyStarted = false;
    size_t m_replyBytes = 0;    // request and reply bytes of the reply in progress
    size_t m_requestBytes = 0;  // sent since the last reply started
    // The last refused device, so that a retry every second logs once.
    std::string m_refused;
    std::atomic<const std::atomic<bool>*> m_abort{nullptr};
    CLed m_ledTransmit;
    CLed m_ledReceive;
};
