// SPDX-License-Identifier: Apache-2.0
// ModBus::SendRequest's reply checks (slave, function, exception replies,
// byte count, echo of a write, CRC) against whatever the line delivers, and
// the register accessors of an accepted reply. The first byte picks the request.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "protocols/ModBus.h"
#include "transport/CConnector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    static const ModBusRequest kRequests[] = {
        {"Read Holding", ModBus::kReadHoldingRegisters, 0x0100, 10, {}},
        {"Read Input", ModBus::kReadInputRegisters, 0x0000, 125, {}},
        {"Read Coils", ModBus::kReadCoils, 0x0000, 16, {}},
        {"Write Register", ModBus::kWriteSingleRegister, 0x0010, 1, {0x1234}},
        {"Write Registers", ModBus::kWriteMultipleRegisters, 0x0020, 2, {0x0001, 0x0002}},
        {"Slave Id", ModBus::kReportSlaveId, 0, 0, {}},
    };
    const ModBusRequest& request = kRequests[data[0] % (sizeof kRequests / sizeof kRequests[0])];
    CConnector conn{std::make_unique<CReplayTransport>(data + 1, size - 1)};
    ModBus modbus(conn, 1, 1, "fuzz", std::chrono::milliseconds(0), [](std::chrono::milliseconds) {});
    if (modbus.SendRequest(request)) {
        if (modbus.replyLength() > ModBus::kMaxFrame)
            __builtin_trap();
        volatile uint16_t sink = 0;
        for (size_t i = 0; i < modbus.dataLength() / 2; ++i)
            sink = sink + modbus.registerAt(i);
    }
    return 0;
}
