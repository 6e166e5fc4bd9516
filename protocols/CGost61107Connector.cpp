// SPDX-License-Identifier: Apache-2.0
#include "protocols/CGost61107Connector.h"

#include <cstdio>
#include <utility>

#include "core/logger.h"

CGost61107Connector::CGost61107Connector(long long id, std::string name)
    : m_log{id, std::move(name)} {}

uint8_t CGost61107Connector::bcc(const uint8_t* data, size_t length) const {
    uint8_t x = 0;
    for (size_t i = 0; i < length; ++i)
        x ^= data[i];
    return x;
}

void CGost61107Connector::setExpectedReply(uint8_t first, uint8_t end, uint8_t altEnd) {
    m_expectedFirst = first;
    m_expectedEnd = end;
    m_expectedAltEnd = altEnd;
}

void CGost61107Connector::setWakeUp(uint8_t fill, unsigned count) {
    m_wakeFill = fill;
    m_wakeCount = count;
}

bool CGost61107Connector::makePacket(const SGost61107Request& request) {
    const char* rq = request.name.c_str();
    std::string frame;
    m_expectedAltEnd = 0;
    switch (request.kind) {
    case SGost61107Request::SignOn:
        frame.assign(m_wakeCount, static_cast<char>(m_wakeFill));
        frame += "/?" + request.address + "!\r\n";
        m_expectedFirst = '/';
        m_expectedEnd = LF;
        break;
    case SGost61107Request::OptionSelect:
        if (m_speedSymbol < '0' || m_speedSymbol > '6') {
            MTD_CLOG(m_log, Err, "CGost61107Connector::makePacket('%s') - WRONG BAUD RATE '%c' !!!", rq, m_speedSymbol);
            return false;
        }
        frame = {static_cast<char>(ACK), '0', m_speedSymbol, '1', static_cast<char>(CR), static_cast<char>(LF)};
        m_expectedFirst = SOH;
        m_expectedEnd = ETX;
        break;
    case SGost61107Request::ReadR1:
    case SGost61107Request::ReadR3:
    case SGost61107Request::WriteW1: {
        const char* cmd = request.kind == SGost61107Request::ReadR1   ? "R1"
                          : request.kind == SGost61107Request::ReadR3 ? "R3"
                                                                      : "W1";
        frame = static_cast<char>(SOH);
        frame += cmd;
        frame += static_cast<char>(STX);
        frame += request.address + "(" + request.data + ")";
        frame += static_cast<char>(ETX);
        m_expectedFirst = request.kind == SGost61107Request::WriteW1 ? ANY_REPLY : STX;
        m_expectedEnd = ETX;
        m_expectedAltEnd = EOT;
        break;
    }
    case SGost61107Request::Break:
        // A break gets no answer from the device; the expectations stay as they are.
        frame = {static_cast<char>(SOH), 'B', '0', static_cast<char>(ETX)};
        break;
    case SGost61107Request::Acknowledge:
    case SGost61107Request::Repeat:
        frame = static_cast<char>(request.kind == SGost61107Request::Acknowledge ? ACK : NAK);
        m_expectedFirst = STX;
        m_expectedEnd = ETX;
        m_expectedAltEnd = EOT;
        break;
    default:
        MTD_CLOG(m_log, Err, "CGost61107Connector::makePacket('%s') - %d UNKNOWN MESSAGE !!!", rq, static_cast<int>(request.kind));
        return false;
    }
    if (frame.size() + 1 > kTxCapacity) {
        MTD_CLOG(m_log, Err, "CGost61107Connector::makePacket('%s') - PACKET TOO LONG (%zu BYTES) !!!", rq, frame.size());
        return false;
    }
    m_lastKind = request.kind;
    m_txLength = frame.size();
    for (size_t i = 0; i < frame.size(); ++i)
        m_tx[i] = static_cast<uint8_t>(frame[i]);
    if ((m_tx[0] & 0xFD) == SOH) {
        m_tx[m_txLength] = bcc(m_tx + 1, m_txLength - 1);
        ++m_txLength;
    }
    return true;
}

std::string CGost61107Connector::printable(const uint8_t* data, size_t length, bool hasBcc) {
    std::string out;
    size_t body = hasBcc && length > 0 ? length - 1 : length;
    char tmp[16];
    for (size_t i = 0; i < body; ++i) {
        uint8_t c = data[i];
        switch (c) {
        case SOH: out += "<SOH>"; break;
        case STX: out += "<STX>"; break;
        case ETX: out += "<ETX>"; break;
        case EOT: out += "<EOT>"; break;
        case ACK: out += "<ACK>"; break;
        case NAK: out += "<NACK>"; break;
        case CR: out += "<CR>"; break;
        case LF: out += "<LF>"; break;
        default:
            if (c >= 0x20 && c < 0x7F) {
                out += static_cast<char>(c);
            } else {
                std::snprintf(tmp, sizeof tmp, "<0x%02X>", c);
                out += tmp;
            }
        }
    }
    if (body < length) {
        std::snprintf(tmp, sizeof tmp, "<BCC=0x%02X>", data[body]);
        out += tmp;
    }
    return out;
}
