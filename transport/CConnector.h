// SPDX-License-Identifier: Apache-2.0
#pragma once
// The one byte transport every driver talks through. Built once per process
// from the first device's port parameters: "protocol" == "modbus" gives a
// Modbus RTU line, anything else a plain UART. All calls are forwarded.

#include <memory>
#include <string>

#include "core/Defaults.h"
#include "transport/CTransport.h"

class CModbusConnectorItself;

class CConnector {
public:
    explicit CConnector(const PortParams& params, const LedPaths& leds = LedPaths());
    // Wraps a ready transport (a replay of recorded traffic, for instance).
    explicit CConnector(std::unique_ptr<CTransport> transport);
    ~CConnector();
    CConnector(const CConnector&) = delete;
    CConnector& operator=(const CConnector&) = delete;

    int WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink);
    int ReadBuffer(unsigned char* buffer, uint16_t length, bool blink);
    int ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms);
    bool open_device();
    void close_device();
    int FlushBuffers();
    int DrainOutput();
    void SetTimeout(uint32_t timeout_ms);
    uint32_t GetTimeout() const;
    bool is_open() const;
    void SetLengthByteMode(int mode);
    void SetAbortFlag(const std::atomic<bool>* flag);

    // The line's settings, parsed once from the host service's "port_params".
    const PortSettings& settings() const { return m_transport->settings(); }
    // Takes effect at the next open_device(); 0 marks a line that cannot change speed.
    void setSpeed(long baud) { m_transport->settings().speed = baud; }

    // The Modbus transport for Modbus drivers; nullptr on a plain UART.
    CModbusConnectorItself* modbus();
    CTransport& transport() { return *m_transport; }

private:
    std::unique_ptr<CTransport> m_transport;
    CModbusConnectorItself* m_modbus = nullptr;
};
