// SPDX-License-Identifier: Apache-2.0
#include "protocols/CM4MemoryConnector.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>

#include "core/logger.h"
#include "transport/CConnector.h"
#include "protocols/Exchange.h"
#include "transport/CLinkStats.h"

namespace {

constexpr int kAttempts = 3;
constexpr size_t kFrameLength = 9;  // 10 NT FN d0 d1 d2 d3 CS 16
constexpr size_t kReplyOverhead = 5;  // 10 NT FN ... CS 16

}  // namespace

CM4MemoryConnector::CM4MemoryConnector(CConnector& connector, uint8_t netAddr, long long logId, std::string logName,
                                       M4::Timing timing, ProtocolSleep sleep)
    : m_connector(connector),
      m_m4(connector, netAddr, logId, logName, timing, sleep),
      m_netAddr(netAddr),
      m_log{logId, std::move(logName)},
      m_timing(timing),
      m_sleep(std::move(sleep)) {}

void CM4MemoryConnector::pause(std::chrono::milliseconds d) const {
    if (m_sleep)
        m_sleep(d);
    else
        std::this_thread::sleep_for(d);
}

bool CM4MemoryConnector::startSession(uint8_t ident[3]) {
    LogikaRequest request;
    request.name = "Session Start";
    request.function = M4::kFnSessionStart;
    if (!m_m4.SendRequest(request))
        return false;
    for (int i = 0; i < 3; ++i)
        ident[i] = m_m4.reply()[3 + i];
    return true;
}

bool CM4MemoryConnector::readRam(const char* name, uint16_t address, size_t count, std::vector<uint8_t>& out) {
    return read(name, kFnReadRam, address, count, 1, count, out);
}

bool CM4MemoryConnector::readFlash(const char* name, uint16_t page, size_t pages, std::vector<uint8_t>& out) {
    return read(name, kFnReadFlash, page, pages, pages, kPageSize, out);
}

bool CM4MemoryConnector::readFlashBytes(const char* name, uint32_t address, size_t count, std::vector<uint8_t>& out) {
    out.clear();
    if (count == 0)
        return true;
    const uint32_t first = address / kPageSize, last = static_cast<uint32_t>((address + count - 1) / kPageSize);
    if (last > 0xFFFF) {
        MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s') - WRONG ADDRESS 0x%X !!!", name, address);
        return false;
    }
    std::vector<uint8_t> pages, block;
    for (uint32_t p = first; p <= last;) {
        const size_t n = std::min<size_t>(kMaxPages, last - p + 1);
        if (!readFlash(name, static_cast<uint16_t>(p), n, block))
            return false;
        pages.insert(pages.end(), block.begin(), block.end());
        p += static_cast<uint32_t>(n);
    }
    const size_t skip = address - first * kPageSize;
    out.assign(pages.begin() + static_cast<long>(skip), pages.begin() + static_cast<long>(skip + count));
    return true;
}

void CM4MemoryConnector::drain(size_t most) {
    uint8_t scrap[64];
    for (size_t got = 0; got < most;) {
        const int r = m_connector.ReadBuffer(scrap, static_cast<uint16_t>(std::min(sizeof scrap, most - got)), true);
        if (r <= 0)
            return;
        got += static_cast<size_t>(r);
    }
}

bool CM4MemoryConnector::readExactly(uint8_t* p, size_t n) {
    for (size_t got = 0; got < n;) {
        int r = m_connector.ReadBuffer(p + got, static_cast<uint16_t>(n - got), true);
        if (r <= 0)
            return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool CM4MemoryConnector::read(const char* name, uint8_t function, uint16_t where, size_t count, size_t frames,
                              size_t frameData, std::vector<uint8_t>& out) {
    out.clear();
    m_error = false;
    m_errorCode = 0xFF;
    const size_t limit = function == kFnReadRam ? kMaxRamBytes : kMaxPages;
    if (count == 0 || count > limit) {
        MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s') - WRONG COUNT %d !!!",
                name, static_cast<int>(count));
        return false;
    }
    uint8_t frame[kFrameLength] = {M4::kFrameStart, m_netAddr, function, static_cast<uint8_t>(where & 0xFF),
                                   static_cast<uint8_t>(where >> 8), static_cast<uint8_t>(count), 0x00, 0, M4::kFrameEnd};
    frame[7] = M4::shortFrameChecksum(frame + 1, 6);
    exchange::Policy policy;
    policy.attempts = kAttempts;
    policy.pause = m_timing.betweenAttempts;
    policy.gaveUp = "CM4MemoryConnector::read('%s'): CAN'T SEND REQUEST !!!";
    return exchange::run(policy, m_log, name, [&](int) {
        switch (attempt(name, frame, frames, frameData, out)) {
        case Attempt::Ok: return exchange::Outcome::Ok;
        case Attempt::Refused: return exchange::Outcome::Final;
        case Attempt::Failed: break;
        }
        // The rest of a broken block may still be on its way (eight pages take
        // over two seconds at 2400 Bd): a late page would pass every check of
        // the next attempt's first frame. Wait for the line to fall silent.
        drain(frames * (frameData + kReplyOverhead));
        return exchange::Outcome::Failed;
    }, [this](std::chrono::milliseconds d) { pause(d); });
}

CM4MemoryConnector::Attempt CM4MemoryConnector::attempt(const char* name, const uint8_t* frame, size_t frames,
                                                        size_t frameData, std::vector<uint8_t>& out) {
    logger* log = g_logger;
    char title[128];

    m_connector.FlushBuffers();  // what is left of an earlier, broken reply
    int written = m_connector.WriteBuffer(frame, kFrameLength, true);
    if (log && log->isLevel(logger::DEBUG)) {
        MTD_CLOG_FORMAT(m_log, title, "CM4MemoryConnector::read('%s'): Send", name);
        log->dump(title, frame, kFrameLength);
    }
    if (written != static_cast<int>(kFrameLength)) {
        MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s'): Send - WRITE ERROR, WANT %d BYTES, WRITTEN %d", name, static_cast<int>(kFrameLength), written);
        return Attempt::Failed;
    }
    out.clear();
    out.reserve(frames * frameData);
    for (size_t i = 0; i < frames; ++i) {
        const Attempt a = receiveFrame(name, frame[2], frameData, out);
        if (a != Attempt::Ok) {
            out.clear();
            return a;
        }
    }
    return Attempt::Ok;
}

CM4MemoryConnector::Attempt CM4MemoryConnector::receiveFrame(const char* name, uint8_t function, size_t frameData,
                                                             std::vector<uint8_t>& out) {
    logger* log = g_logger;
    char title[128];
    m_recv.assign(frameData + kReplyOverhead, 0);
    uint8_t* r = m_recv.data();
    if (!readExactly(r, 3)) {
        CLinkStats::noteTimeout();
        MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s'): Header Recv - CAN'T READ HEADER !!!",
                name);
        return Attempt::Failed;
    }
    // A refusal is short whatever was asked: code, check byte, end byte.
    const size_t length = r[2] == M4::kFnErrorReply ? 6 : m_recv.size();
    if (!readExactly(r + 3, length - 3)) {
        CLinkStats::noteTimeout();
        MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s'): Tail Recv - TIMEOUT !!! WANT READ %d BYTES", name, static_cast<int>(length - 3));
        return Attempt::Failed;
    }
    if (log && log->isLevel(logger::DEBUG)) {
        MTD_CLOG_FORMAT(m_log, title, "CM4MemoryConnector::read('%s'): Recv", name);
        log->dump(title, r, length);
    }
    struct Check {
        const char* what;
        unsigned want, got;
    } checks[] = {
        {"START", M4::kFrameStart, r[0]},
        {"netAddr", m_netAddr, r[1]},
        {"FUNCTION", r[2] == M4::kFnErrorReply ? static_cast<unsigned>(M4::kFnErrorReply) : function, r[2]},
        {"CRC", M4::shortFrameChecksum(r + 1, length - 3), r[length - 2]},
        {"END", M4::kFrameEnd, r[length - 1]},
    };
    for (const auto& c : checks) {
        if (c.want != c.got) {
            if (c.what[0] == 'C')
                CLinkStats::noteChecksumError();
            MTD_CLOG(m_log, Err, "CM4MemoryConnector::read('%s'): Recv - WRONG %s, WAIT 0x%02x, BUT GET 0x%02x !!!", name, c.what, c.want, c.got);
            return Attempt::Failed;
        }
    }
    if (r[2] == M4::kFnErrorReply) {
        m_error = true;
        m_errorCode = r[3];
        MTD_CLOG(m_log, Warning, "CM4MemoryConnector::read('%s') - GET ERROR RESPONSE WITH ERROR 0x%02x ('%s')", name, m_errorCode, M4::CM4::errorText(m_errorCode));
        return Attempt::Refused;
    }
    out.insert(out.end(), r + 3, r + 3 + frameData);
    return Attempt::Ok;
}
