// SPDX-License-Identifier: Apache-2.0
#include "protocols/M4.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

#include "protocols/Exchange.h"
#include "transport/CLinkStats.h"
#include "core/Exceptions.h"
#include "protocols/Crc16.h"
#include "core/logger.h"
#include "transport/CConnector.h"

namespace M4 {

namespace {

constexpr int kAttempts = 3;
constexpr size_t kHeaderSize = 8;
constexpr uint8_t kDle = kFrameStart;
constexpr uint8_t kEnd = kFrameEnd;
constexpr uint8_t kFrameType = 0x90;  // "long" frame with attribute byte and length
constexpr size_t kWakeUpLength = 20;

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

float leFloat(const uint8_t* p) {
    uint32_t bits = le32(p);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

std::string fixed(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", value);
    return text;
}

// Six bytes: year - 2000, month, day, hour, minute, second (local time).
void putDateTime(uint8_t* p, uint32_t unixSeconds) {
    time_t t = static_cast<time_t>(unixSeconds);
    struct tm tmv {};
    localtime_r(&t, &tmv);
    p[0] = static_cast<uint8_t>(tmv.tm_year - 100);
    p[1] = static_cast<uint8_t>(tmv.tm_mon + 1);
    p[2] = static_cast<uint8_t>(tmv.tm_mday);
    p[3] = static_cast<uint8_t>(tmv.tm_hour);
    p[4] = static_cast<uint8_t>(tmv.tm_min);
    p[5] = static_cast<uint8_t>(tmv.tm_sec);
}

// Frame header for the CRC-checked requests; returns the offset of the body.
size_t putHeader(uint8_t* p, uint8_t netAddr, uint8_t id, uint16_t bodyLength) {
    p[0] = kDle;
    p[1] = netAddr;
    p[2] = kFrameType;
    p[3] = id;
    p[4] = 0x00;  // attribute
    p[5] = static_cast<uint8_t>(bodyLength & 0xFF);
    p[6] = static_cast<uint8_t>(bodyLength >> 8);
    return 7;
}

// CRC over NT .. end of body, appended high byte first; returns the frame length.
size_t putCrc(uint8_t* p, size_t end) {
    uint16_t crc = Crc16::xmodem(p + 1, end - 1);
    p[end] = static_cast<uint8_t>(crc >> 8);
    p[end + 1] = static_cast<uint8_t>(crc & 0xFF);
    return end + 2;
}

}  // namespace

uint8_t shortFrameChecksum(const uint8_t* data, size_t length) {
    unsigned sum = 0;
    for (size_t i = 0; i < length; ++i)
        sum += data[i];
    return static_cast<uint8_t>(~sum);
}

CM4::CM4(CConnector& connector, uint8_t netAddr, long long logId, std::string logName, Timing timing,
         ProtocolSleep sleep)
    : m_connector(connector),
      m_netAddr(netAddr),
      m_log{logId, std::move(logName)},
      m_timing(timing),
      m_sleep(std::move(sleep)) {}

const char* CM4::errorText(uint8_t code) {
    switch (code) {
    case 0: return "Bad request";
    case 1: return "Write protection";
    case 2: return "Bad parameter value";
    case 255: return "No any errors";
    default: return "! unknown error";
    }
}

void CM4::pause(std::chrono::milliseconds d) const {
    if (m_sleep)
        m_sleep(d);
    else
        std::this_thread::sleep_until(std::chrono::steady_clock::now() + d);
}

void CM4::dumpFrame(const char* what, const LogikaRequest& request, const uint8_t* data, size_t length) const {
    logger* log = g_logger;
    if (!log || !log->isLevel(logger::DEBUG))
        return;
    char title[128];
    MTD_CLOG_FORMAT(m_log, title, "M4::SendRequest('%s'): %s", request.name.c_str(), what);
    log->dump(title, data, length);
}

bool CM4::makePacket(const LogikaRequest& request) {
    uint8_t* p = m_send;
    switch (request.function) {
    case kFnSessionStart:
        p[0] = kDle;
        p[1] = m_netAddr;
        p[2] = kFnSessionStart;
        p[3] = p[4] = p[5] = p[6] = 0x00;
        p[7] = shortFrameChecksum(p + 1, 5);
        p[8] = kEnd;
        m_sendLength = 9;
        m_packetId = 0xFF;
        return true;

    case kFnReadParam: {
        ++m_packetId;
        size_t i = putHeader(p, m_netAddr, m_packetId, 6);
        p[i++] = kFnReadParam;
        p[i++] = 0x4A;
        p[i++] = 0x03;
        p[i++] = request.channel;
        p[i++] = static_cast<uint8_t>(request.param & 0xFF);
        p[i++] = static_cast<uint8_t>((request.param >> 8) & 0x7F);
        m_sendLength = putCrc(p, i);
        return true;
    }

    case kFnReadArchive: {
        ++m_packetId;
        size_t i = putHeader(p, m_netAddr, m_packetId, 0x18);
        p[i++] = kFnReadArchive;
        // archive pointer: channel and the two selector bytes
        p[i++] = 0x04;
        p[i++] = 0x05;
        p[i++] = 0xFF;
        p[i++] = 0xFF;
        p[i++] = request.channel;
        p[i++] = static_cast<uint8_t>(request.args[0]);
        p[i++] = static_cast<uint8_t>(request.args[1]);
        // interval start and end as date-time elements
        p[i++] = 0x49;
        p[i++] = 0x06;
        putDateTime(p + i, request.args[2]);
        i += 6;
        p[i++] = 0x49;
        p[i++] = 0x06;
        putDateTime(p + i, request.args[3]);
        i += 6;
        m_sendLength = putCrc(p, i);
        return true;
    }

    case kFnWakeUp:
        std::memset(p, 0xFF, kWakeUpLength);
        m_sendLength = kWakeUpLength;
        return true;

    default:
        MTD_CLOG(m_log, Err, "M4::makePacket('%s') - 0x%02x UNKNOWN COMMAND !!!",
                request.name.c_str(), request.function);
        return false;
    }
}

bool CM4::readHeader(const LogikaRequest& request) {
    for (size_t got = 0; got < kHeaderSize; ++got) {
        if (m_connector.ReadBuffer(m_recv + got, 1, true) != 1) {
            MTD_CLOG(m_log, Err,
                    "M4::SendRequest('%s'): Header Recv - CAN'T READ HEADER !!! WANT READ %d BYTES, BUT "
                    "GET ONLY %d BYTES", request.name.c_str(), static_cast<int>(kHeaderSize),
                    static_cast<int>(got));
            m_recvLength = got;
            return false;
        }
    }
    m_recvLength = kHeaderSize;
    return true;
}

CM4::Attempt CM4::attempt(const LogikaRequest& request) {
    const char* name = request.name.c_str();

    m_connector.FlushBuffers();  // drop what is left of an earlier, broken reply
    int written = m_connector.WriteBuffer(m_send, static_cast<uint16_t>(m_sendLength), true);
    dumpFrame("Send", request, m_send, m_sendLength);
    if (written != static_cast<int>(m_sendLength)) {
        MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Send - WRITE ERROR, WANT %d BYTES, WRITTEN %d", name, static_cast<int>(m_sendLength), written);
        return Attempt::Failed;
    }

    if (request.function == kFnWakeUp) {
        pause(m_timing.afterWakeUp);
        return Attempt::Ok;
    }

    pause(m_timing.afterSend);
    if (!readHeader(request))
        return Attempt::Failed;

    if (request.function == kFnSessionStart) {
        dumpFrame("Recv", request, m_recv, m_recvLength);
        uint8_t cs = shortFrameChecksum(m_recv + 1, 5);
        struct {
            uint8_t want, got;
        } checks[] = {{m_netAddr, m_recv[1]}, {kFnSessionStart, m_recv[2]}, {cs, m_recv[6]}};
        for (const auto& c : checks) {
            if (c.want != c.got) {
                CLinkStats::noteChecksumError();
                MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Recv - WRONG CRC, WAIT 0x%02x, BUT GET 0x%02x !!!", name, c.want, c.got);
                return Attempt::Failed;
            }
        }
        m_error = false;
        m_errorCode = 0xFF;
        return Attempt::Ok;
    }

    size_t full = (static_cast<size_t>(m_recv[5]) | static_cast<size_t>(m_recv[6]) << 8) + 9;
    if (full > kRecvBufferSize) {
        MTD_CLOG(m_log, Err, "M4::%s('%s'): Recv - Packet is too big to fit in memory; packet size %d, buffer size %d", "SendRequest", name, static_cast<int>(full), static_cast<int>(kRecvBufferSize));
        throw CWrongPacketException("M4 reply larger than the receive buffer");
    }

    size_t got = kHeaderSize;
    while (got < full) {
        int n = m_connector.ReadBuffer(m_recv + got, static_cast<uint16_t>(full - got), true);
        if (n <= 0) {
            CLinkStats::noteTimeout();
            MTD_CLOG(m_log, Err,
                    "M4::SendRequest('%s'): Tail Recv - TIMEOUT !!! WANT READ %d BYTES, BUT GET ONLY %d "
                    "BYTES", name, static_cast<int>(full - kHeaderSize), static_cast<int>(got - kHeaderSize));
            m_recvLength = got;
            return Attempt::Failed;
        }
        got += static_cast<size_t>(n);
    }
    m_recvLength = full;
    dumpFrame("Recv", request, m_recv, m_recvLength);

    if (m_recv[1] != m_netAddr) {
        MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Recv - WRONG netAddr, WAIT 0x%02x, BUT GET 0x%02x !!!", name, m_netAddr, m_recv[1]);
        return Attempt::Failed;
    }
    if (m_recv[3] != m_packetId) {
        MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Recv - WRONG ID, WAIT 0x%02x, BUT GET 0x%02x !!!", name, m_packetId, m_recv[3]);
        return Attempt::Failed;
    }
    if (m_recv[7] != request.function && m_recv[7] != kFnErrorReply) {
        MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Recv - WRONG FUNCTION, WAIT 0x%02x, BUT GET 0x%02x !!!", name, static_cast<unsigned>(request.function), m_recv[7]);
        return Attempt::Failed;
    }
    uint16_t calc = Crc16::xmodem(m_recv + 1, full - 3);
    uint16_t read = static_cast<uint16_t>(m_recv[full - 2] << 8 | m_recv[full - 1]);
    if (calc != read) {
        CLinkStats::noteChecksumError();
        MTD_CLOG(m_log, Err, "M4::SendRequest('%s'): Recv - WRONG CRC, WAIT 0x%04x, BUT GET 0x%04x !!!", name, calc, read);
        return Attempt::Failed;
    }

    m_error = false;
    m_errorCode = 0xFF;
    if (m_recv[7] == kFnErrorReply) {
        // The meter understood the frame but refused the request; no point in repeating it.
        m_error = true;
        m_errorCode = full > 9 ? m_recv[8] : 0xFF;
        MTD_CLOG(m_log, Warning, "M4::SendRequest('%s') - GET ERROR RESPONSE WITH ERROR 0x%02x ('%s')", name, m_errorCode, errorText(m_errorCode));
    }
    return Attempt::Ok;
}

bool CM4::SendRequest(const LogikaRequest& request) {
    exchange::Policy policy;
    policy.attempts = kAttempts;
    policy.pause = m_timing.betweenAttempts;
    policy.gaveUp = "M4::SendRequest('%s'): CAN'T SEND REQUEST !!!";
    return exchange::run(policy, m_log, request.name.c_str(), [&](int) {
        // Each attempt is a fresh frame, so it carries a fresh packet identifier.
        if (!makePacket(request))
            return exchange::Outcome::Final;
        return attempt(request) == Attempt::Ok ? exchange::Outcome::Ok : exchange::Outcome::Failed;
    }, [this](std::chrono::milliseconds d) { pause(d); });
}

bool CM4::decodeLength(const uint8_t* data, size_t avail, uint32_t& length, size_t& fieldSize) {
    if (avail < 1)
        return false;
    uint8_t first = data[0];
    if (first <= 0x80) {  // 0x80 itself stands for 128
        length = first;
        fieldSize = 1;
        return true;
    }
    size_t count = first & 0x7F;
    if (count > 4 || avail < count + 1)
        return false;
    uint32_t value = 0;
    for (size_t i = 1; i <= count; ++i)
        value = value << 8 | data[i];
    length = value;
    fieldSize = count + 1;
    return true;
}

bool CM4::GetParamValue(const uint8_t* data, size_t avail, ParamValue& out) const {
    out = ParamValue();
    size_t fieldSize = 0;
    if (avail < 2 || !decodeLength(data + 1, avail - 1, out.length, fieldSize)) {
        MTD_CLOG(m_log, Err, "M4::GetParamValue(): ERROR - BAD ELEMENT HEADER, %u BYTES LEFT !", static_cast<unsigned>(avail));
        out.text = "! error";
        return false;
    }
    out.tag = data[0];
    out.headerSize = 1 + fieldSize;
    if (out.length > avail - out.headerSize) {
        MTD_CLOG(m_log, Err, "M4::GetParamValue(): ERROR - PARAM TAG 0x%02x LENGTH %u, BUT %u BYTES LEFT !", out.tag, out.length, static_cast<unsigned>(avail - out.headerSize));
        out.text = "! error";
        return false;
    }

    const uint8_t* v = data + out.headerSize;
    size_t need = 0;
    switch (out.tag) {
    case 0x41: case 0x43: case 0x47: case 0x4B: need = 4; break;
    case 0x44: need = 8; break;
    case 0x48: need = 3; break;
    case 0x49: need = 6; break;
    default: break;
    }
    if (out.length < need) {
        MTD_CLOG(m_log, Err, "M4::GetParamValue(): ERROR - PARAM TAG 0x%02x TOO SHORT: %u BYTES !", out.tag, out.length);
        out.text = "! error";
        return false;
    }

    char text[64];
    switch (out.tag) {
    case 0x05:
        out.text = "! null";
        return true;
    case 0x16:
        out.text.assign(reinterpret_cast<const char*>(v), out.length);
        return true;
    case 0x30:
        out.kind = ParamValue::Integer;
        out.integer = out.length;
        out.text = std::to_string(out.length);
        return true;
    case 0x41:
        out.kind = ParamValue::Integer;
        out.integer = le32(v);
        out.text = std::to_string(out.integer);
        return true;
    case 0x43:
        out.kind = ParamValue::Number;
        out.number = leFloat(v);
        out.text = fixed(out.number);
        return true;
    case 0x44:
        // whole part kept as an integer, the fraction as a float, so big totals keep their digits
        out.kind = ParamValue::Number;
        out.number = static_cast<double>(le32(v)) + static_cast<double>(leFloat(v + 4));
        out.text = fixed(out.number);
        return true;
    case 0x47:
        out.kind = ParamValue::DateTime;
        out.hasTime = true;
        out.second = v[1];
        out.minute = v[2];
        out.hour = v[3];
        std::snprintf(text, sizeof text, "%02d:%02d:%02d", out.hour, out.minute, out.second);
        out.text = text;
        return true;
    case 0x48:
        out.kind = ParamValue::DateTime;
        out.hasDate = true;
        out.day = v[0];
        out.month = v[1];
        out.year = 2000 + v[2];
        std::snprintf(text, sizeof text, "%02d.%02d.%04d", out.day, out.month, out.year);
        out.text = text;
        return true;
    case 0x49:
        out.kind = ParamValue::DateTime;
        out.hasDate = out.hasTime = true;
        out.year = 2000 + v[0];
        out.month = v[1];
        out.day = v[2];
        out.hour = v[3];
        out.minute = v[4];
        out.second = v[5];
        std::snprintf(text, sizeof text, "%02d.%02d.%04d %02d:%02d:%02d", out.day, out.month, out.year, out.hour,
                      out.minute, out.second);
        out.text = text;
        return true;
    case 0x4B:
        out.kind = ParamValue::Integer;
        out.integer = le32(v);
        std::snprintf(text, sizeof text, "0x%08X", out.integer);
        out.text = text;
        return true;
    default:
        MTD_CLOG(m_log, Err, "M4::GetParamValue(): ERROR - UNKNOWN PARAM TAG = 0x%02x !", out.tag);
        out.text = "! error";
        return false;
    }
}

}  // namespace M4
