// SPDX-License-Identifier: Apache-2.0
// M4::SendRequest's reply checks (header, announced length, net address,
// packet identifier, function, CRC, error replies) against whatever the line
// delivers, then the body of an accepted reply walked with GetParamValue as a
// driver does. The first byte picks the request; the rest is the line.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/Exceptions.h"
#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/M4Walk.h"
#include "protocols/M4.h"
#include "transport/CConnector.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    const LogikaRequest requests[] = {
        {"Session", M4::kFnSessionStart, 0, 0, {}},
        {"Read Param", M4::kFnReadParam, 0, 1024, {}},
        {"Read Archive", M4::kFnReadArchive, 0, 0, {0x00, 0x01, 1714000000, 1714600000}},
    };
    const LogikaRequest& request = requests[data[0] % 3];
    CConnector conn{std::make_unique<CReplayTransport>(data + 1, size - 1)};
    M4::CM4 m4(conn, 1, 1, "fuzz", M4::Timing(), [](std::chrono::milliseconds) {});
    try {
        if (m4.SendRequest(request)) {
            if (m4.replyLength() > M4::CM4::kRecvBufferSize)
                __builtin_trap();
            walkM4Body(m4, m4.body(), m4.bodyLength());
        }
    } catch (const CWrongPacketException&) {
        // a reply that announces more than the buffer holds: refused by design
    }
    return 0;
}
