// SPDX-License-Identifier: Apache-2.0
// The IEC 61107 reply path as a driver drives it: makePacket() sets what the
// reply must look like, receive() reads it (a read takes what the line has
// queued, so the bytes after one reply start the next), parse() splits the
// "(...)" values. The first input byte picks the kind of exchange,
// the rest is what the line delivers; replies are read until it runs dry.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/CReplayTransport.h"
#include "fuzz/FuzzLog.h"
#include "protocols/CGost61107.h"
#include "transport/CConnector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    fuzzLogAll();
    static const SGost61107Request kRequests[] = {
        {"Sign On", SGost61107Request::SignOn, "12345678", ""},
        {"Options", SGost61107Request::OptionSelect, "", ""},
        {"Read Register", SGost61107Request::ReadR1, "4:170.0", ""},
        {"Write Password", SGost61107Request::WriteW1, "4:171.0", "00000000"},
        {"Read Archive", SGost61107Request::ReadR3, "3:V.0", "3;2024-05-01,10:00:00;2024-05-02,10:00:00;1"},
        {"Next Block", SGost61107Request::Acknowledge, "", ""},
    };
    const uint8_t selector = data[0];
    auto* replay = new CReplayTransport(data + 1, size - 1);
    CConnector conn{std::unique_ptr<CTransport>(replay)};
    CGost61107 proto(conn, 1, "fuzz");
    proto.setSleep([](std::chrono::milliseconds) {});  // a recording has nothing to wait for
    if (selector & 0x80)
        proto.setOptionAltFirst(CGost61107Connector::ACK);
    const SGost61107Request& request = kRequests[(selector & 0x7F) % (sizeof kRequests / sizeof kRequests[0])];
    std::vector<uint8_t> reply;
    std::vector<std::string> values;
    while (replay->remaining() > 0 || proto.pending() > 0) {
        if (!proto.makePacket(request))
            __builtin_trap();  // every request of the table builds
        const size_t before = replay->remaining() + proto.pending();
        if (proto.receive(request, reply)) {
            if (reply.size() > CGost61107::kMaxReply + 1)
                __builtin_trap();
            proto.parse(request, values, reply.data(), reply.size());
            fuzzReport(values);
        }
        if (replay->remaining() + proto.pending() == before)
            break;
    }
    return 0;
}
