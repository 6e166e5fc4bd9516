// SPDX-License-Identifier: Apache-2.0
#pragma once
// IEC 61107 (GOST 61107) mode-C master over a CConnector.
//
// The dialogue with a volume corrector:
//   master "/?12345678!" CR LF        device "/XXX5EK270" CR LF   (5 = 9600 Bd offered)
//   master ACK "051" CR LF            device SOH "P0" STX "(...)" ETX BCC, then both
//                                     sides switch to the speed of the symbol
//   master SOH "R1" STX "1:180.0()" ETX BCC   device STX "1:180.0(12345678)" ETX BCC
//   master SOH "W1" STX "4:171.0(pass)" ETX BCC   device ACK (or NAK, or an error block)
//   master SOH "B0" ETX BCC           device says nothing and drops the session
// Long data sets (archives) come in blocks: EOT ends a block with more to come,
// ETX the last one; the master asks for the next block with a bare ACK.
//
// Replies are read as they come, each read with the connector's time-out (the
// first with 100 ms more for the meter's reaction) taking whatever the line has
// queued. While a long block trickles in, the layer sleeps a slice of a few
// character times between reads rather than waking for every byte, except over
// the last characters of the length the previous reply had: a run of blocks of
// one record each has its end byte seen as soon as it comes. Bytes read ahead
// past a reply are dropped with the port's input before the next request.
// Up to three wrong first bytes (echoes, a late check byte) are dropped. Every
// reply that ends with ETX or EOT has its BCC read and checked: a damaged
// register value or archive block that still parses must not be taken, and a
// check byte left unread would start the next reply. A wrong or missing BCC
// fails the attempt; a failed "next block" is asked for again with NAK, never
// with ACK. The line stays quiet for 20 ms after the meter's last byte before
// the next request goes out.
//
// Every failure is a false result and one log line; nothing throws.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "protocols/CGost61107Connector.h"

class CConnector;

class CGost61107 : public CGost61107Connector {
public:
    static constexpr size_t kMaxReply = 16384;

    using Sleep = std::function<void(std::chrono::milliseconds)>;

    CGost61107(CConnector& connector, long long id, std::string name);

    // Up to three attempts (100 ms pause after a failure; a retried ACK goes out as NAK);
    // a good reply is handed to processReply(), whose result is returned.
    bool SendRequest(const SGost61107Request& request, std::vector<uint8_t>& reply);
    // Reads one reply as the last makePacket() described it.
    bool receive(const SGost61107Request& request, std::vector<uint8_t>& reply);
    // Splits the "(...)" values of a reply (for a sign-on reply the maker's
    // three-letter identification comes first).
    bool parse(const SGost61107Request& request, std::vector<std::string>& values,
               const uint8_t* reply, size_t length);

    // 0 for a symbol outside '0'..'6'.
    int SpeedSymbolToBaudRate(char symbol);
    bool ChangeBaudRate(char symbol);
    // Reopens the port at `baudRate` when it differs from the port's "speed".
    bool ChangeBaudRate(int baudRate);

    // Values split by the default processReply() from the last good reply.
    const std::vector<std::string>& values() const { return m_values; }
    // The last good reply ended with a check byte (SOH and STX replies do).
    bool replyHasBcc() const { return m_replyHasBcc; }
    CConnector& connector() { return m_connector; }
    // Bytes read from the line and not yet taken by a reply.
    size_t pending() const { return m_rxLen - m_rxPos; }
    // How SendRequest pauses (quiet gap, after a failure); empty means a real sleep.
    // A replay of recorded replies has nothing to wait for.
    void setSleep(Sleep sleep) { m_sleep = std::move(sleep); }

protected:
    // What SendRequest does with a good reply; the default parses it into values().
    virtual bool processReply(const SGost61107Request& request, const std::vector<uint8_t>& reply);

    CConnector& m_connector;
    std::vector<std::string> m_values;
    bool m_replyHasBcc = false;  // the last reply ends with its check byte

private:
    void pause(std::chrono::milliseconds d) const;
    // Sleeps what is left of the quiet gap after the meter's last byte.
    void keepQuietGap();
    // How long the check byte of an STX reply is waited for at the port's speed.
    uint32_t bccWaitMs() const;
    // The pause between reads while a block trickles in (0: read at once).
    uint32_t sliceMs() const;
    // The next byte of the line: read ahead earlier, or after one wait (waitMs
    // of silence; 0: the port's time-out). False when nothing came.
    bool nextByte(uint8_t& byte, uint32_t waitMs);
    void dropReadAhead();
    Sleep m_sleep;
    uint8_t m_rx[256] = {};
    size_t m_rxPos = 0;
    size_t m_rxLen = 0;
    size_t m_lastReplySize = 0;
    std::chrono::steady_clock::time_point m_lastRx;
};
