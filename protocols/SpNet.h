// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika SPbus (the text-field protocol of the older correctors), short frame
// without addresses: the meter answering is the one on the line.
//
//   DLE SOH DLE ISI FN DLE STX  HT ch HT ppp [fields] FF  DLE ETX  CRC hi lo
//   10  01  10  1F  1D 10  02   09 '0' 09 '0''6''5'    0C  10  03   ..  ..
//
// Fields are ASCII digits separated by HT, a block ends with FF. The CRC is
// CRC-16/XMODEM over DLE ISI .. ETX. Replies carry their own function code
// (0x1D -> 0x03, 0x0C -> 0x14, 0x0E -> 0x16, 0x18 -> 0x20, 0x19 -> 0x21) and
// end with DLE ETX and the CRC. No pause is needed between a failed attempt
// and the next one.
//
// The meters cap a reply near 5500 bytes (an archive or journal reply that
// reaches it is cut after its last whole entry), so the receive buffer holds
// 8 KiB.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/logger.h"
#include "protocols/LogikaRequest.h"

class CConnector;

namespace SpNet {

enum : uint32_t {
    kFnReadParam = 0x1D,    // args: channel, parameter
    kFnReadArray = 0x0C,    // args: channel, parameter, first index (2 digits), count (1 digit)
    // args: channel, parameter, then two times (Unix seconds, local time) in
    // the order they go on the line; the meter wants the END of the window
    // first and the START second.
    kFnReadArchive = 0x0E,
    // Slice archives (hourly, daily): args 0, archive number.
    kFnReadTableDescriptor = 0x19,  // the column list
    kFnReadTableRow = 0x18,         // args 0, archive number, time: the slice at that time
};

class CSpNet {
public:
    static constexpr size_t kSendBufferSize = 64;
    static constexpr size_t kRecvBufferSize = 8192;

    CSpNet(CConnector& connector, long long logId, std::string logName);

    // Builds the frame of `request`; false (send buffer untouched) for an unknown function.
    bool makePacket(const LogikaRequest& request);
    // Up to three attempts, sent back to back; true when a reply passed the checks.
    bool SendRequest(const LogikaRequest& request);

    // The frame as text, control bytes as "<DLE>" etc., other unprintable bytes as "<hh>".
    static std::string printable(const uint8_t* data, size_t length);
    // The reply function that answers a request function (0 when there is none).
    static uint8_t replyFunction(uint32_t requestFunction);

    const uint8_t* sendBuffer() const { return m_send; }
    size_t sendLength() const { return m_sendLength; }
    const uint8_t* reply() const { return m_recv; }
    size_t replyLength() const { return m_recvLength; }

private:
    bool attempt(const LogikaRequest& request);
    void logFrame(bool sent, const LogikaRequest& request, const uint8_t* data, size_t length) const;

    CConnector& m_connector;
    mtd::LogContext m_log;

    uint8_t m_send[kSendBufferSize] = {};
    size_t m_sendLength = 0;
    uint8_t m_recv[kRecvBufferSize] = {};
    size_t m_recvLength = 0;
};

}  // namespace SpNet
