// SPDX-License-Identifier: Apache-2.0
#include "protocols/SpNet.h"

#include <cstdio>
#include <ctime>
#include <utility>

#include "protocols/Exchange.h"
#include "transport/CLinkStats.h"
#include "protocols/Crc16.h"
#include "core/logger.h"
#include "transport/CConnector.h"

namespace SpNet {

namespace {

constexpr int kAttempts = 3;
constexpr uint8_t SOH = 0x01, STX = 0x02, ETX = 0x03, HT = 0x09, FF = 0x0C, DLE = 0x10, ISI = 0x1F;
// Reading stops here, leaving room for the two CRC bytes.
constexpr size_t kReplyLimit = CSpNet::kRecvBufferSize - 2;
constexpr size_t kLogChunk = 75;

class Writer {
public:
    explicit Writer(uint8_t* p) : m_p(p) {}
    void byte(uint8_t b) { m_p[m_n++] = b; }
    // `count` decimal digits of value, most significant first.
    void digits(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i) {
            m_p[m_n + i] = static_cast<uint8_t>('0' + value % 10);
            value /= 10;
        }
        m_n += count;
    }
    void field(uint32_t value, int count) {
        byte(HT);
        digits(value, count);
    }
    // HT dd HT mm HT yyyy HT hh HT mm HT ss FF, local time; the century is always "20".
    void dateTime(uint32_t unixSeconds) {
        time_t t = static_cast<time_t>(unixSeconds);
        struct tm tmv {};
        localtime_r(&t, &tmv);
        field(tmv.tm_mday, 2);
        field(tmv.tm_mon + 1, 2);
        byte(HT);
        byte('2');
        byte('0');
        digits(static_cast<uint32_t>(tmv.tm_year % 100), 2);
        field(tmv.tm_hour, 2);
        field(tmv.tm_min, 2);
        field(tmv.tm_sec, 2);
        byte(FF);
    }
    size_t size() const { return m_n; }

private:
    uint8_t* m_p;
    size_t m_n = 0;
};

const char* controlName(uint8_t b) {
    switch (b) {
    case SOH: return "<SOH>";
    case STX: return "<STX>";
    case ETX: return "<ETX>";
    case DLE: return "<DLE>";
    case ISI: return "<ISI>";
    case FF: return "<FF>";
    case HT: return "<HT>";
    default: return nullptr;
    }
}

std::string token(uint8_t b) {
    if (const char* name = controlName(b))
        return name;
    if (b >= 0x20 && b < 0x7F)
        return std::string(1, static_cast<char>(b));
    char hex[8];
    std::snprintf(hex, sizeof hex, "<%02X>", b);
    return hex;
}

}  // namespace

CSpNet::CSpNet(CConnector& connector, long long logId, std::string logName)
    : m_connector(connector), m_log{logId, std::move(logName)} {}

uint8_t CSpNet::replyFunction(uint32_t requestFunction) {
    switch (requestFunction) {
    case kFnReadParam: return 0x03;
    case kFnReadArray: return 0x14;
    case kFnReadArchive: return 0x16;
    case kFnReadTableRow: return 0x20;
    case kFnReadTableDescriptor: return 0x21;
    default: return 0;
    }
}

std::string CSpNet::printable(const uint8_t* data, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i)
        text += token(data[i]);
    return text;
}

bool CSpNet::makePacket(const LogikaRequest& request) {
    if (replyFunction(request.function) == 0) {
        MTD_CLOG(m_log, Err, "SpNet::makePacket('%s') - WRONG FUNCTION 0x%02X",
                request.name.c_str(), static_cast<unsigned>(request.function));
        return false;
    }
    Writer w(m_send);
    w.byte(DLE);
    w.byte(SOH);
    w.byte(DLE);
    w.byte(ISI);
    w.byte(static_cast<uint8_t>(request.function));
    w.byte(DLE);
    w.byte(STX);
    // parameter pointer: channel, parameter number
    w.field(request.args[0], 1);
    w.field(request.args[1], 3);
    switch (request.function) {
    case kFnReadParam:
    case kFnReadTableDescriptor:
        w.byte(FF);
        break;
    case kFnReadArray:
        w.field(request.args[2], 2);
        w.field(request.args[3], 1);
        w.byte(FF);
        break;
    case kFnReadArchive:
        w.byte(FF);
        w.dateTime(request.args[2]);
        w.dateTime(request.args[3]);
        break;
    case kFnReadTableRow:
        w.byte(FF);
        w.dateTime(request.args[2]);
        break;
    }
    w.byte(DLE);
    w.byte(ETX);
    size_t end = w.size();
    uint16_t crc = Crc16::xmodem(m_send + 2, end - 2);
    m_send[end] = static_cast<uint8_t>(crc >> 8);
    m_send[end + 1] = static_cast<uint8_t>(crc & 0xFF);
    m_sendLength = end + 2;
    return true;
}

void CSpNet::logFrame(bool sent, const LogikaRequest& request, const uint8_t* data, size_t length) const {
    logger* log = g_logger;
    if (!log || !log->isLevel(logger::DEBUG))
        return;
    // One line per run of whole tokens of at most 75 characters.
    std::string chunk;
    auto flush = [&] {
        if (sent)
            MTD_CLOG(m_log, Debug, "CSpNet::SendRequest('%s'): Send: %s", request.name.c_str(), chunk.c_str());
        else
            MTD_CLOG(m_log, Debug, "CSpNet::SendRequest('%s'): Recv: %s", request.name.c_str(), chunk.c_str());
        chunk.clear();
    };
    for (size_t i = 0; i < length; ++i) {
        std::string t = token(data[i]);
        if (chunk.size() + t.size() > kLogChunk)
            flush();
        chunk += t;
    }
    if (!chunk.empty() || length == 0)
        flush();
}

bool CSpNet::attempt(const LogikaRequest& request) {
    const char* name = request.name.c_str();

    m_connector.FlushBuffers();
    int written = m_connector.WriteBuffer(m_send, static_cast<uint16_t>(m_sendLength), true);
    logFrame(true, request, m_send, m_sendLength);
    if (written != static_cast<int>(m_sendLength)) {
        MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - WRITE ERROR, WANT %d BYTES, WRITTEN %d",
                name, static_cast<int>(m_sendLength), written);
        return false;
    }

    // A reply is complete once at least six bytes are in and the last one is ETX;
    // the ETX of the short head (DLE SOH DLE ISI FN) cannot end it.
    size_t n = 0;
    m_recvLength = 0;
    for (;;) {
        if (n >= kReplyLimit) {
            MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - OVERFLOW RESPONSE BUFFER", name);
            return false;
        }
        if (m_connector.ReadBuffer(m_recv + n, 1, true) != 1) {
            CLinkStats::noteTimeout();
            MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - RECEIVING TIMEOUT", name);
            return false;
        }
        ++n;
        if (n >= 6 && m_recv[n - 1] == ETX)
            break;
    }
    size_t etx = n - 1;
    for (int i = 0; i < 2; ++i) {
        if (m_connector.ReadBuffer(m_recv + n, 1, true) != 1) {
            CLinkStats::noteTimeout();
            MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - CAN'T GET CRC", name);
            return false;
        }
        ++n;
    }
    m_recvLength = etx + 3;
    logFrame(false, request, m_recv, m_recvLength);

    uint8_t want = replyFunction(request.function);
    if (m_recv[4] != want) {
        MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - WRONG RESPONSE FUNCTION: WAIT 0x%02X, BUT GOT 0x%02X", name, want, m_recv[4]);
        return false;
    }
    uint16_t calc = Crc16::xmodem(m_recv + 2, etx - 1);
    uint16_t got = static_cast<uint16_t>(m_recv[etx + 1] << 8 | m_recv[etx + 2]);
    if (calc != got) {
        CLinkStats::noteChecksumError();
        MTD_CLOG(m_log, Err, "CSpNet::SendRequest(%s) - WRONG CRC: WAIT = 0x%04x, GOT = 0x%04x", name,
                calc, got);
        return false;
    }
    return true;
}

bool CSpNet::SendRequest(const LogikaRequest& request) {
    exchange::Policy policy;
    policy.attempts = kAttempts;
    policy.countRetries = true;
    policy.failedAttempt = "SpNet::SendRequest('%s') - WRONG ATTEMPT N %d";
    policy.gaveUp = "SpNet::SendRequest('%s'): CAN'T SEND REQUEST !!!";
    return exchange::run(policy, m_log, request.name.c_str(), [&](int) {
        if (!makePacket(request))
            return exchange::Outcome::Final;
        return attempt(request) ? exchange::Outcome::Ok : exchange::Outcome::Failed;
    }, {});
}

}  // namespace SpNet
