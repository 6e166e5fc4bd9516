// SPDX-License-Identifier: Apache-2.0
#pragma once
// Frame builder of the IEC 61107 (GOST 61107) mode-C dialogue.
//
// makePacket() turns a request record into the bytes to send and sets what the
// reply must look like (its first byte, its end byte and an alternative end
// byte). Command frames carry a block check character (BCC): the XOR of every
// byte after the leading SOH up to and including ETX. A read of 4:170.0 is
//   01 'R' '1' 02 '4' ':' '1' '7' '0' '.' '0' '(' ')' 03 <BCC>
// Devices that sleep on their optical head want a run of fill bytes before the
// sign-on (the wake-up prefix).

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/logger.h"
#include "protocols/SGost61107Request.h"

class CGost61107Connector {
public:
    static constexpr uint8_t SOH = 0x01;
    static constexpr uint8_t STX = 0x02;
    static constexpr uint8_t ETX = 0x03;
    static constexpr uint8_t EOT = 0x04;
    static constexpr uint8_t ACK = 0x06;
    static constexpr uint8_t NAK = 0x15;
    static constexpr uint8_t CR = 0x0D;
    static constexpr uint8_t LF = 0x0A;
    // Expected first byte of a reply that may be ACK, NAK or a data block.
    static constexpr uint8_t ANY_REPLY = 0xFF;
    static constexpr size_t kTxCapacity = 512;

    // `id` and `name` fill the "[%lld][%s] " prefix of every log line.
    CGost61107Connector(long long id, std::string name);
    virtual ~CGost61107Connector() = default;

    // Fills the transmit buffer and the reply expectations; false (and one log
    // line) for an unknown kind, a bad speed symbol or a frame too long.
    bool makePacket(const SGost61107Request& request);

    // Block check over `length` bytes (the caller passes the bytes after the
    // first one, up to and including the end byte). Default: XOR of them all.
    virtual uint8_t bcc(const uint8_t* data, size_t length) const;

    const uint8_t* txBuffer() const { return m_tx; }
    size_t txLength() const { return m_txLength; }

    uint8_t expectedFirst() const { return m_expectedFirst; }
    uint8_t expectedEnd() const { return m_expectedEnd; }
    uint8_t expectedAltEnd() const { return m_expectedAltEnd; }
    // Drivers set 0 as first byte before a request that gets no reply (break).
    void setExpectedReply(uint8_t first, uint8_t end, uint8_t altEnd = 0);

    char speedSymbol() const { return m_speedSymbol; }
    void setSpeedSymbol(char symbol) { m_speedSymbol = symbol; }
    // `count` fill bytes of value `fill` before every sign-on; 0 turns it off.
    void setWakeUp(uint8_t fill, unsigned count);
    // A first byte that completes an option-select reply by itself (0 = none).
    void setOptionAltFirst(uint8_t first) { m_optionAltFirst = first; }
    uint8_t optionAltFirst() const { return m_optionAltFirst; }

    long long logId() const { return m_log.id; }
    const char* logName() const { return m_log.name.c_str(); }

    // The frame as a log line shows it: "<SOH>R1<STX>4:170.0()<ETX><BCC=0x50>".
    // `hasBcc` marks the last byte as the check character.
    static std::string printable(const uint8_t* data, size_t length, bool hasBcc);

protected:
    mtd::LogContext m_log;
    uint8_t m_tx[kTxCapacity] = {};
    size_t m_txLength = 0;
    uint8_t m_expectedFirst = 0;
    uint8_t m_expectedEnd = 0;
    uint8_t m_expectedAltEnd = 0;
    char m_speedSymbol = '5';
    uint8_t m_wakeFill = 0;
    unsigned m_wakeCount = 0;
    uint8_t m_optionAltFirst = 0;
    uint32_t m_lastKind = SGost61107Request::SignOn;
};
