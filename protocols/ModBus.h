// SPDX-License-Identifier: Apache-2.0
#pragma once
// Modbus RTU framing for the drivers whose meters speak Modbus over the plain
// serial line (the bytes go through CConnector, not through libmodbus).
//
//   request   AA FN  addr hi lo  count/value hi lo  [N  data...]  CRC lo hi
//   reply     AA FN  N  data...                                    CRC lo hi   (reads, 0x11)
//             AA FN  addr hi lo  count/value hi lo                 CRC lo hi   (writes)
//             AA FN|0x80  code                                     CRC lo hi   (exception)
// The CRC is the Modbus one (0xA001 reflected, initial 0xFFFF), low byte first.
// Register values are big-endian. An exception reply is final: the meter
// understood the request and refused it, so it is not repeated.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/logger.h"

class CConnector;

struct ModBusRequest {
    std::string name;              // shown quoted in the log lines
    uint8_t function = 0x03;
    uint16_t address = 0;          // first register or coil
    uint16_t count = 1;            // registers/coils to read, registers to write (0x10)
    std::vector<uint16_t> values;  // 0x05, 0x06: values[0]; 0x10: `count` registers
};

class ModBus {
public:
    enum : uint8_t {
        kReadCoils = 0x01,
        kReadDiscreteInputs = 0x02,
        kReadHoldingRegisters = 0x03,
        kReadInputRegisters = 0x04,
        kWriteSingleCoil = 0x05,
        kWriteSingleRegister = 0x06,
        kWriteMultipleRegisters = 0x10,
        kReportSlaveId = 0x11,
    };
    static constexpr size_t kMaxFrame = 256;  // RTU frame limit

    using Sleep = std::function<void(std::chrono::milliseconds)>;

    ModBus(CConnector& connector, uint8_t slave, long long logId, std::string logName,
           std::chrono::milliseconds betweenAttempts = std::chrono::milliseconds(1000), Sleep sleep = Sleep());

    // Builds the request frame; false for an unknown function or arguments out of range.
    bool makePacket(const ModBusRequest& request);
    // Up to three attempts; true when a reply passed its checks. An exception reply
    // ends the request at once with false, exceptionCode() tells which.
    bool SendRequest(const ModBusRequest& request);

    const uint8_t* sendBuffer() const { return m_send; }
    size_t sendLength() const { return m_sendLength; }
    const uint8_t* reply() const { return m_recv; }
    size_t replyLength() const { return m_recvLength; }
    // Data bytes of a read reply (after the byte count).
    const uint8_t* data() const { return m_recv + 3; }
    size_t dataLength() const { return m_recvLength >= 5 ? m_recv[2] : 0; }
    // Register i of a 0x03/0x04 reply.
    uint16_t registerAt(size_t i) const;
    // Exception code of the last reply, 0 when none.
    uint8_t exceptionCode() const { return m_exception; }
    void setSlave(uint8_t slave) { m_slave = slave; }

private:
    enum class Attempt { Ok, Failed, Final };
    Attempt attempt(const ModBusRequest& request);
    bool readExactly(size_t from, size_t to);

    CConnector& m_connector;
    uint8_t m_slave;
    mtd::LogContext m_log;
    std::chrono::milliseconds m_betweenAttempts;
    Sleep m_sleep;

    uint8_t m_send[kMaxFrame] = {};
    size_t m_sendLength = 0;
    uint8_t m_recv[kMaxFrame] = {};
    size_t m_recvLength = 0;
    uint8_t m_exception = 0;
};
