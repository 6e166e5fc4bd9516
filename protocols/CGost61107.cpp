// SPDX-License-Identifier: Apache-2.0
#include "protocols/CGost61107.h"

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "protocols/Exchange.h"
#include "transport/CLinkStats.h"
#include "core/logger.h"
#include "transport/CConnector.h"

namespace {

constexpr auto kPause = std::chrono::milliseconds(100);
// IEC 62056-21 devices need the line quiet for 20 ms after their last byte
// before they listen to the next request.
constexpr auto kQuietGap = std::chrono::milliseconds(20);
// Silence that ends the wait for the check byte of an STX reply: a few
// character times, but not below the 16 ms latency timer of USB adapters.
constexpr int kBccWaitChars = 5;
constexpr uint32_t kBccWaitMinMs = 20;
// While a long block trickles in, the layer sleeps this many character times
// between reads and takes what has queued, instead of waking for every byte;
// never beyond kSliceMaxMs, and never within the last kSliceMargin characters
// of the length the previous reply had, so the end byte is still seen at once.
constexpr uint32_t kSliceChars = 8;
constexpr uint32_t kSliceMaxMs = 10;
constexpr size_t kSliceMargin = 4;
constexpr int kAttempts = 3;
constexpr int kMaxWrongFirst = 3;

bool debugOn() {
    return g_logger != nullptr && g_logger->isLevel(logger::DEBUG);
}

char shown(uint8_t c) {
    return (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
}

}  // namespace

CGost61107::CGost61107(CConnector& connector, long long id, std::string name)
    : CGost61107Connector(id, std::move(name)), m_connector(connector) {}

bool CGost61107::SendRequest(const SGost61107Request& request, std::vector<uint8_t>& reply) {
    const char* rq = request.name.c_str();
    exchange::Policy policy;
    policy.attempts = kAttempts;
    // Lets the rest of a damaged reply (or a check byte that comes late)
    // arrive before the flush of the next attempt.
    policy.pause = kPause;
    policy.countRetries = true;
    policy.failedAttempt = "CGost61107::SendRequest('%s') - ATTEMPT N%d IS FAILED !!!";
    policy.gaveUp = "CGost61107::SendRequest('%s') - CAN'T SEND REQUEST !!!";
    const bool ok = exchange::run(policy, m_log, rq, [&](int attempt) {
        // A block that did not come whole and checked is never acknowledged: the
        // meter would take the ACK for "next block" and the lost one would never
        // be read. NAK makes it send the same block again.
        SGost61107Request sent = request;
        if (attempt > 0 && request.kind == SGost61107Request::Acknowledge)
            sent.kind = SGost61107Request::Repeat;
        if (!makePacket(sent))
            return exchange::Outcome::Final;
        if (debugOn()) {
            std::string shownTx = printable(m_tx, m_txLength, (m_tx[0] & 0xFD) == SOH);
            MTD_CLOG(m_log, Debug, "CGost61107::send('%s'): Send: %s", rq,
                    shownTx.c_str());
        }
        keepQuietGap();
        // Whatever is still queued belongs to an earlier exchange: the tail of a
        // damaged or late reply. Left there it would be taken for the start of
        // this reply; a stale 0x06 would even pass for the ACK of a write.
        m_connector.FlushBuffers();
        dropReadAhead();
        m_connector.WriteBuffer(m_tx, static_cast<uint16_t>(m_txLength), true);
        const bool got = receive(request, reply);
        m_lastRx = std::chrono::steady_clock::now();
        return got ? exchange::Outcome::Ok : exchange::Outcome::Failed;
    }, [this](std::chrono::milliseconds d) { pause(d); });
    return ok && processReply(request, reply);
}

void CGost61107::keepQuietGap() {
    if (m_lastRx == std::chrono::steady_clock::time_point())
        return;
    auto since = std::chrono::steady_clock::now() - m_lastRx;
    if (since < kQuietGap)
        pause(std::chrono::duration_cast<std::chrono::milliseconds>(kQuietGap - since) + std::chrono::milliseconds(1));
}

uint32_t CGost61107::bccWaitMs() const {
    const long baud = m_connector.settings().speed;
    uint32_t ms = baud > 0 ? static_cast<uint32_t>(kBccWaitChars * 10 * 1000 / baud + 1) : kBccWaitMinMs;
    return ms < kBccWaitMinMs ? kBccWaitMinMs : ms;
}

uint32_t CGost61107::sliceMs() const {
    const long baud = m_connector.settings().speed;
    if (baud <= 0)
        return 0;
    uint32_t ms = static_cast<uint32_t>(kSliceChars * 10 * 1000 / baud);
    return ms > kSliceMaxMs ? kSliceMaxMs : ms;
}

bool CGost61107::nextByte(uint8_t& byte, uint32_t waitMs) {
    if (m_rxPos == m_rxLen) {
        m_rxPos = m_rxLen = 0;
        // A bounded wait takes the first byte only; after it, one read takes
        // whatever the line has queued.
        int n = waitMs != 0 ? m_connector.ReadBufferCycle(m_rx, 1, true, waitMs)
                            : m_connector.ReadBuffer(m_rx, sizeof m_rx, true);
        if (n <= 0)
            return false;
        m_rxLen = static_cast<size_t>(n) < sizeof m_rx ? static_cast<size_t>(n) : sizeof m_rx;
    }
    byte = m_rx[m_rxPos++];
    return true;
}

void CGost61107::dropReadAhead() {
    m_rxPos = m_rxLen = 0;
}

void CGost61107::pause(std::chrono::milliseconds d) const {
    if (m_sleep)
        m_sleep(d);
    else
        std::this_thread::sleep_for(d);
}

bool CGost61107::processReply(const SGost61107Request& request, const std::vector<uint8_t>& reply) {
    // The check byte may be any value, a '(' too: it is not part of the text.
    return parse(request, m_values, reply.data(), reply.size() - (m_replyHasBcc ? 1 : 0));
}

bool CGost61107::receive(const SGost61107Request& request, std::vector<uint8_t>& reply) {
    const char* rq = request.name.c_str();
    reply.clear();
    m_replyHasBcc = false;
    if (m_expectedFirst == 0) {
        MTD_CLOG(m_log, Debug, "CGost61107::receive('%s'): will not wait response", rq);
        return true;
    }
    uint8_t byte = 0;
    // The reply is waited for as it comes; the first byte may take the pause the
    // meter is allowed before it answers on top of the port's time-out.
    uint32_t firstWait = m_connector.GetTimeout() + static_cast<uint32_t>(kPause.count());
    auto readOne = [&]() {
        bool got = nextByte(byte, firstWait);
        firstWait = 0;
        if (got)
            return true;
        CLinkStats::noteTimeout();
        MTD_CLOG(m_log, Err, "CGost61107::receive('%s') - RECV: TIMEOUT !!! ReadAll = %d", rq,
                static_cast<int>(reply.size()));
        return false;
    };

    // First byte: up to three wrong ones are dropped.
    bool complete = false;
    for (int wrong = 0;;) {
        if (!readOne())
            return false;
        if (request.kind == SGost61107Request::OptionSelect && m_optionAltFirst != 0 && byte == m_optionAltFirst) {
            complete = true;
            break;
        }
        if (m_expectedFirst == ANY_REPLY) {
            if (byte == ACK || byte == NAK) {
                complete = true;
                break;
            }
            if (byte == STX)
                break;
        } else if (byte == m_expectedFirst) {
            break;
        }
        ++wrong;
        uint8_t want = m_expectedFirst == ANY_REPLY ? STX : m_expectedFirst;
        MTD_CLOG(m_log, Warning, "CGost61107::receive('%s'): Recv #%d: 1ST MUST BE 0x%02x('%c'), BUT GOT 0x%02x('%c')", rq, wrong, want, shown(want), byte, shown(byte));
        if (wrong > kMaxWrongFirst)
            return false;
    }
    reply.push_back(byte);

    if (!complete) {
        const uint32_t slice = sliceMs();
        for (;;) {
            // Far from where the previous reply ended, let a slice of the block
            // queue up before the next read; near it, wake for every byte.
            if (slice != 0 && m_rxPos == m_rxLen && reply.size() + kSliceChars + kSliceMargin < m_lastReplySize)
                pause(std::chrono::milliseconds(slice));
            if (!readOne())
                return false;
            reply.push_back(byte);
            if (byte == m_expectedEnd || (m_expectedAltEnd != 0 && byte == m_expectedAltEnd))
                break;
            if (reply.size() >= kMaxReply) {
                MTD_CLOG(m_log, Err, "CGost61107::receive('%s') - RECV: NO END BYTE IN %d BYTES !!!", rq,
                        static_cast<int>(reply.size()));
                return false;
            }
        }
    }
    if (!complete && (reply[0] == SOH || reply[0] == STX)) {
        uint8_t got = 0;
        const bool stx = reply[0] == STX;
        // The check byte of an STX reply follows at once; waiting only a few
        // character times keeps a meter that leaves it out from costing the
        // whole time-out.
        if (!nextByte(got, stx ? bccWaitMs() : 0)) {
            CLinkStats::noteTimeout();
            MTD_CLOG(m_log, Err, "CGost61107::receive('%s'): Recv: CAN'T GET BCC !!!", rq);
            return false;
        }
        uint8_t calc = bcc(reply.data() + 1, reply.size() - 1);
        if (got != calc) {
            CLinkStats::noteChecksumError();
            if (stx)
                MTD_CLOG(m_log, Warning, "CGost61107::receive('%s'): Recv: WRONG BCC OF STX REPLY - GOT 0x%02x, BUT CALCULATED 0x%02x !!!", rq, got, calc);
            else
                MTD_CLOG(m_log, Err, "CGost61107::receive('%s'): Recv: WRONG BCC - GOT 0x%02x, BUT CALCULATED 0x%02x !!!", rq, got, calc);
            return false;
        }
        reply.push_back(got);
        m_replyHasBcc = true;
    }
    m_lastReplySize = reply.size();
    if (debugOn()) {
        std::string shownRx = printable(reply.data(), reply.size(), reply.size() > 1 && (reply[0] & 0xFD) == SOH);
        MTD_CLOG(m_log, Debug, "CGost61107::receive('%s'): Recv: %s", rq, shownRx.c_str());
    }
    return true;
}

bool CGost61107::parse(const SGost61107Request& request, std::vector<std::string>& values, const uint8_t* reply,
                       size_t length) {
    const char* rq = request.name.c_str();
    values.clear();
    if (m_expectedFirst == 0 || m_expectedFirst == ANY_REPLY) {
        MTD_CLOG(m_log, Debug, "CGost61107::parse('%s'): will not parse response", rq);
        return true;
    }
    size_t pos = 0;
    if (request.kind == SGost61107Request::SignOn && length > 0 && reply[0] == '/') {
        size_t n = length - 1 < 3 ? length - 1 : 3;
        values.emplace_back(reinterpret_cast<const char*>(reply) + 1, n);
        pos = 1 + n;
    }
    long open = -1;
    for (; pos < length; ++pos) {
        if (reply[pos] == '(') {
            if (open < 0)
                open = static_cast<long>(pos);
        } else if (reply[pos] == ')') {
            if (open < 0) {
                MTD_CLOG(m_log, Err, "CGost61107::parse('%s') - NO OPEN '(' FOR CLOSE ')' AT POSITION %d", rq, static_cast<int>(pos));
                values.clear();
                return false;
            }
            values.emplace_back(reinterpret_cast<const char*>(reply) + open + 1, pos - open - 1);
            open = -1;
        }
    }
    if (open >= 0) {
        MTD_CLOG(m_log, Err, "CGost61107::parse('%s') - NO CLOSE ')' FOR OPEN '(' AT POSITION %d", rq, static_cast<int>(open));
        values.clear();
        return false;
    }
    return true;
}

int CGost61107::SpeedSymbolToBaudRate(char symbol) {
    static const int rates[] = {300, 600, 1200, 2400, 4800, 9600, 19200};
    if (symbol >= '0' && symbol <= '6')
        return rates[symbol - '0'];
    MTD_CLOG(m_log, Err, "CGost61107::SpeedSymbolToBaudRate('%c') - UNKNOWN SPEED SYMBOL !!! WILL RETURN 0.", symbol);
    return 0;
}

bool CGost61107::ChangeBaudRate(char symbol) {
    int rate = SpeedSymbolToBaudRate(symbol);
    if (rate == 0) {
        MTD_CLOG(m_log, Err, "CGost61107::ChangeBaudRate() - UNKNOWN SPEED SYMBOL '%c'. CHANGING IS IMPOSSIBLE", symbol);
        return true;
    }
    MTD_CLOG(m_log, Info, "CGost61107::ChangeBaudRate() - SPEED SYMBOL '%c' -> BAUD RATE %d",
            symbol, rate);
    return ChangeBaudRate(rate);
}

bool CGost61107::ChangeBaudRate(int baudRate) {
    const int current = static_cast<int>(m_connector.settings().speed);
    if (current == 0) {
        MTD_CLOG(m_log, Warning, "CGost61107::ChangeBaudRate() - ZERO DEVICE BAUD RATE. CHANGING IS IMPOSSIBLE");
        return true;
    }
    if (current == baudRate) {
        MTD_CLOG(m_log, Info, "CGost61107::ChangeBaudRate() - CURRENT BAUD RATE %d == DESIRED BAUD RATE %d. NO ACTION.", current, baudRate);
        return true;
    }
    m_connector.setSpeed(baudRate);
    m_connector.close_device();
    dropReadAhead();
    bool ok = m_connector.open_device();
    if (ok)
        MTD_CLOG(m_log, Info, "CGost61107::ChangeSpeed() - CHANGE BAUD RATE FROM %d TO %d - Ok",
                current, baudRate);
    else
        MTD_CLOG(m_log, Err, "CGost61107::ChangeBaudRate() - CAN'T CHANGE BAUD RATE FROM %d TO %d", current, baudRate);
    return ok;
}
