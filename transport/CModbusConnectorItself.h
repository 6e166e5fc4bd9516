// SPDX-License-Identifier: Apache-2.0
#pragma once
// The Modbus RTU transport: one libmodbus RTU master context on the serial
// port "name" (default "/dev/ttyS1"). Drivers get whole transactions, each
// addressed to the slave id given per call; libmodbus does the framing, CRC
// and inter-frame timing. A mutex makes every transaction atomic, so a second
// thread (a set-value request) cannot interleave frames with the polling thread.
//
// Time-outs: "timeout" ms (60000 by default, twelve times the plain UART's,
// because some flow computers answer slowly) is the byte time-out; the response
// time-out is twice that.
//
// The byte-stream calls of CTransport (WriteBuffer, ReadBuffer, ReadBufferCycle)
// have no meaning on a Modbus line and always return -1 (errno ENOTSUP); use
// the transactions or RawRequest.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "transport/CLed.h"
#include "transport/CTransport.h"

struct _modbus;  // libmodbus's modbus_t

class CModbusConnectorItself : public CTransport {
public:
    // The longest RTU frame libmodbus receives; RawRequest's buffer must hold it.
    static constexpr int kMaxAdu = 256;

    explicit CModbusConnectorItself(const PortSettings& settings, const LedPaths& leds = LedPaths());
    ~CModbusConnectorItself() override;
    CModbusConnectorItself(const CModbusConnectorItself&) = delete;
    CModbusConnectorItself& operator=(const CModbusConnectorItself&) = delete;

    int WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink) override;
    int ReadBuffer(unsigned char* buffer, uint16_t length, bool blink) override;
    int ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) override;
    // Creates the RTU context from the port parameters and connects; false (with
    // a Crit line) on failure. An open context is closed first.
    bool open_device() override;
    void close_device() override;
    int FlushBuffers() override;
    int DrainOutput() override;
    // Byte time-out = timeout_ms, response time-out = 2 x timeout_ms.
    void SetTimeout(uint32_t timeout_ms) override;
    uint32_t GetTimeout() const override { return m_timeoutMs.load(); }
    bool is_open() const override;
    PortSettings& settings() override { return m_settings; }

    // Transactions: the libmodbus result (registers or bytes, or -1 with errno
    // set). A slave id libmodbus refuses gives -1 with no traffic and no blink.
    int ReadHoldingRegisters(int slave, int address, int count, uint16_t* dest, bool blink);
    int ReadInputRegisters(int slave, int address, int count, uint16_t* dest, bool blink);
    int WriteRegister(int slave, int address, uint16_t value, bool blink);
    int WriteRegisters(int slave, int address, int count, const uint16_t* src, bool blink);
    int WriteAndReadRegisters(int slave, int writeAddress, int writeCount, const uint16_t* src, int readAddress,
                              int readCount, uint16_t* dest, bool blink);
    int ReportSlaveId(int slave, int maxLength, uint8_t* dest, bool blink);
    // Sends buffer[0..length) (slave address first, then the PDU; libmodbus adds
    // the CRC) and receives the confirmation into the same buffer, which holds
    // `capacity` bytes. Returns the confirmation length or -1.
    int RawRequest(int slave, uint8_t* buffer, int length, bool blink, size_t capacity = kMaxAdu);

    // The time-outs as libmodbus holds them; false while closed.
    struct LibTimeouts {
        uint32_t byteSec = 0, byteUsec = 0, responseSec = 0, responseUsec = 0;
    };
    bool ReadBackTimeouts(LibTimeouts& out) const;

private:
    struct ContextDeleter {
        void operator()(_modbus* ctx) const;
    };
    using Context = std::unique_ptr<_modbus, ContextDeleter>;

    template <class Call>
    int transaction(int slave, bool blink, Call call);
    void applyTimeouts();  // with m_mutex held

    PortSettings m_settings;
    std::string m_path;
    std::atomic<uint32_t> m_timeoutMs;
    mutable std::mutex m_mutex;
    Context m_ctx;
    CLed m_ledTransmit;
    CLed m_ledReceive;
};
