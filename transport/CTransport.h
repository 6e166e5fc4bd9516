// SPDX-License-Identifier: Apache-2.0
#pragma once
// The byte-transport surface shared by the plain serial port (CRSConnector) and
// the Modbus RTU line (CModbusConnectorItself). CConnector holds one of them and
// forwards every call; protocol layers and drivers only ever see CConnector.

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "core/Defaults.h"
#include "core/PortSettings.h"

// Control files of the two traffic LEDs every transport owns: transmit (A) and receive (B).
struct LedPaths {
    std::string transmit = mtd::defaults::kLedTransmit;
    std::string receive = mtd::defaults::kLedReceive;
};

class CTransport {
public:
    virtual ~CTransport() = default;

    // One write; returns what write(2) returned (no retry on a short write).
    virtual int WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink) = 0;
    // One wait (the read time-out) and one read; -1 on time-out.
    virtual int ReadBuffer(unsigned char* buffer, uint16_t length, bool blink) = 0;
    // Reads until `length` bytes arrived or the line fell silent for `timeout_ms`
    // (0: the read time-out); the partial count, or -1 when nothing came.
    virtual int ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) = 0;
    virtual bool open_device() = 0;
    virtual void close_device() = 0;
    virtual int FlushBuffers() = 0;
    virtual int DrainOutput() = 0;
    virtual void SetTimeout(uint32_t timeout_ms) = 0;
    virtual uint32_t GetTimeout() const = 0;
    virtual bool is_open() const = 0;
    // 1 lets ReadBufferCycle return early for replies whose byte 4 gives their
    // size (see CRSConnector); any other value turns it off. Ignored on Modbus.
    virtual void SetLengthByteMode(int mode) { (void)mode; }
    // The transport's port settings ("speed" is rewritten by a baud change).
    virtual PortSettings& settings() = 0;
    // While `flag` (nullptr: none) is raised, a read waiting for input gives
    // up within a tenth of a second, as on a time-out: a stopping driver does
    // not sit out the read time-out. Set and cleared by the thread that reads.
    virtual void SetAbortFlag(const std::atomic<bool>* flag) { (void)flag; }
};
