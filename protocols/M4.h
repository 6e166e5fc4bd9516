// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika M4 protocol (binary, tagged data elements) spoken by the newer Logika
// correctors and heat meters on a serial line.
//
// Exchange: the master sends one frame, waits about a second, then reads the
// reply: an 8-byte header, the rest of the body and a CRC.
//   request   10 NT 90 ID 00 LL LH | body (LL LH bytes, low byte first) | CRC hi lo
//   reply     10 NT 90 ID 00 LL LH | FN ...                             | CRC hi lo
// The CRC is CRC-16/XMODEM over NT .. end of body. The reply echoes the
// packet identifier ID; FN 0x21 is an error reply whose next byte is the code.
//
// Session start is the old short frame with an 8-bit checksum (kept so, the
// meters expect it):  10 NT 3F 00 00 00 00 CS 16,  CS = ~(NT + 0x3F).
// The meter answers with 8 bytes 10 NT 3F .. .. .. CS .. .
// A meter asleep on battery needs a wake-up: twenty 0xFF bytes, then ten
// seconds of quiet before the first request.
//
// Packet identifier: session start resets it to 0xFF; every other request
// frame (each attempt is a new frame) first adds one to it, wrapping 0xFF ->
// 0x00. So the first request of a session carries 0x00, and a late reply to a
// failed attempt never matches the next attempt.
//
// Reply elements are tag, length, value; see GetParamValue.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/logger.h"
#include "protocols/LogikaRequest.h"

class CConnector;

namespace M4 {

// Function codes the frame builder knows.
enum : uint32_t {
    kFnSessionStart = 0x3F,
    kFnReadParam = 0x72,
    kFnReadArchive = 0x61,
    kFnWakeUp = 0xFF,
    kFnErrorReply = 0x21,
};

// Start and end bytes of the frames (the end byte only in the short frames).
constexpr uint8_t kFrameStart = 0x10;
constexpr uint8_t kFrameEnd = 0x16;

// Check byte of the short frames (session start, and the memory reads of the
// older meters): the complement of the 8-bit sum of NT .. the last data byte.
uint8_t shortFrameChecksum(const uint8_t* data, size_t length);

struct Timing {
    std::chrono::milliseconds afterSend{1000};
    std::chrono::milliseconds betweenAttempts{1000};
    std::chrono::milliseconds afterWakeUp{10000};
};

// One decoded data element.
struct ParamValue {
    enum Kind { None, Number, Integer, DateTime };
    uint8_t tag = 0;
    uint32_t length = 0;      // value length in bytes
    size_t headerSize = 0;    // tag byte plus length field; the value starts here
    std::string text;
    Kind kind = None;
    double number = 0;        // Number (0x43, 0x44)
    uint32_t integer = 0;     // Integer (0x30 container length, 0x41, 0x4B)
    bool hasDate = false, hasTime = false;  // DateTime (0x47, 0x48, 0x49)
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    size_t size() const { return headerSize + length; }
};

class CM4 {
public:
    static constexpr size_t kSendBufferSize = 64;
    // Largest reply accepted; a bigger announced body throws CWrongPacketException.
    static constexpr size_t kRecvBufferSize = 4096;

    CM4(CConnector& connector, uint8_t netAddr, long long logId, std::string logName,
        Timing timing = Timing(), ProtocolSleep sleep = ProtocolSleep());

    // Builds the frame of `request` into the send buffer; false for an unknown function.
    bool makePacket(const LogikaRequest& request);
    // Sends with up to three attempts; true when a reply passed its checks (check
    // isError() for a 0x21 error reply). Throws CWrongPacketException when the
    // reply announces more than kRecvBufferSize bytes.
    bool SendRequest(const LogikaRequest& request);
    // Decodes the element at data[0..avail); false (text "! error") for an unknown
    // tag or an element that does not fit in `avail`.
    bool GetParamValue(const uint8_t* data, size_t avail, ParamValue& out) const;

    // Length field at data[0..avail): the value length and the field's size.
    static bool decodeLength(const uint8_t* data, size_t avail, uint32_t& length, size_t& fieldSize);

    const uint8_t* sendBuffer() const { return m_send; }
    size_t sendLength() const { return m_sendLength; }
    // The last reply as received (header, body, CRC).
    const uint8_t* reply() const { return m_recv; }
    size_t replyLength() const { return m_recvLength; }
    // The reply body: from the function byte up to the CRC.
    const uint8_t* body() const { return m_recv + 7; }
    size_t bodyLength() const { return m_recvLength > 9 ? m_recvLength - 9 : 0; }

    bool isError() const { return m_error; }
    uint8_t errorCode() const { return m_errorCode; }
    static const char* errorText(uint8_t code);
    uint8_t packetId() const { return m_packetId; }
    uint8_t netAddr() const { return m_netAddr; }
    void setNetAddr(uint8_t netAddr) { m_netAddr = netAddr; }

private:
    enum class Attempt { Ok, Failed };
    Attempt attempt(const LogikaRequest& request);
    bool readHeader(const LogikaRequest& request);
    void pause(std::chrono::milliseconds d) const;
    void dumpFrame(const char* what, const LogikaRequest& request, const uint8_t* data, size_t length) const;

    CConnector& m_connector;
    uint8_t m_netAddr;
    mtd::LogContext m_log;
    Timing m_timing;
    ProtocolSleep m_sleep;

    uint8_t m_send[kSendBufferSize] = {};
    size_t m_sendLength = 0;
    uint8_t m_recv[kRecvBufferSize] = {};
    size_t m_recvLength = 0;
    uint8_t m_packetId = 0xFF;
    bool m_error = false;
    uint8_t m_errorCode = 0xFF;
};

}  // namespace M4
