// SPDX-License-Identifier: Apache-2.0
#include "protocols/ModBus.h"

#include <thread>
#include <utility>

#include "protocols/Exchange.h"
#include "transport/CLinkStats.h"
#include "protocols/Crc16.h"
#include "core/logger.h"
#include "transport/CConnector.h"

namespace {

constexpr int kAttempts = 3;

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v & 0xFF);
}

// Bytes of a whole reply once its first three bytes are known; 0 for a function we never send.
size_t replySize(const uint8_t* head) {
    uint8_t fn = head[1];
    if (fn & 0x80)
        return 5;
    switch (fn) {
    case ModBus::kReadCoils:
    case ModBus::kReadDiscreteInputs:
    case ModBus::kReadHoldingRegisters:
    case ModBus::kReadInputRegisters:
    case ModBus::kReportSlaveId:
        return 5u + head[2];
    case ModBus::kWriteSingleCoil:
    case ModBus::kWriteSingleRegister:
    case ModBus::kWriteMultipleRegisters:
        return 8;
    default:
        return 0;
    }
}

// The byte count a read reply must carry.
size_t expectedDataBytes(const ModBusRequest& r) {
    switch (r.function) {
    case ModBus::kReadCoils:
    case ModBus::kReadDiscreteInputs: return (r.count + 7u) / 8u;
    case ModBus::kReadHoldingRegisters:
    case ModBus::kReadInputRegisters: return 2u * r.count;
    default: return 0;
    }
}

}  // namespace

ModBus::ModBus(CConnector& connector, uint8_t slave, long long logId, std::string logName,
               std::chrono::milliseconds betweenAttempts, Sleep sleep)
    : m_connector(connector),
      m_slave(slave),
      m_log{logId, std::move(logName)},
      m_betweenAttempts(betweenAttempts),
      m_sleep(std::move(sleep)) {}

uint16_t ModBus::registerAt(size_t i) const {
    if (2 * i + 1 >= dataLength())
        return 0;
    return static_cast<uint16_t>(data()[2 * i] << 8 | data()[2 * i + 1]);
}

bool ModBus::makePacket(const ModBusRequest& r) {
    uint8_t* p = m_send;
    p[0] = m_slave;
    p[1] = r.function;
    size_t n = 2;
    bool ok = true;
    switch (r.function) {
    case kReadCoils:
    case kReadDiscreteInputs:
    case kReadHoldingRegisters:
    case kReadInputRegisters: {
        // the reply must fit one RTU frame
        uint16_t limit = (r.function <= kReadDiscreteInputs) ? 2000 : 125;
        ok = r.count >= 1 && r.count <= limit;
        put16(p + 2, r.address);
        put16(p + 4, r.count);
        n = 6;
        break;
    }
    case kWriteSingleCoil:
        ok = !r.values.empty();
        put16(p + 2, r.address);
        put16(p + 4, ok && r.values[0] ? 0xFF00 : 0x0000);
        n = 6;
        break;
    case kWriteSingleRegister:
        ok = !r.values.empty();
        put16(p + 2, r.address);
        put16(p + 4, ok ? r.values[0] : 0);
        n = 6;
        break;
    case kWriteMultipleRegisters:
        ok = r.count >= 1 && r.count <= 123 && r.values.size() >= r.count;
        if (ok) {
            put16(p + 2, r.address);
            put16(p + 4, r.count);
            p[6] = static_cast<uint8_t>(2 * r.count);
            n = 7;
            for (uint16_t i = 0; i < r.count; ++i, n += 2)
                put16(p + n, r.values[i]);
        }
        break;
    case kReportSlaveId:
        break;
    default:
        MTD_CLOG(m_log, Err, "ModBus::makePacket('%s') - %d (0x%02X) UNKNOWN MODBUS FUNCTION !!!",
                r.name.c_str(), r.function, r.function);
        return false;
    }
    if (!ok) {
        MTD_CLOG(m_log, Err, "ModBus::makePacket('%s') - BAD ARGUMENTS: count %u, %u values",
                r.name.c_str(), r.count, static_cast<unsigned>(r.values.size()));
        return false;
    }
    uint16_t crc = Crc16::modbus(p, n);
    p[n++] = static_cast<uint8_t>(crc & 0xFF);
    p[n++] = static_cast<uint8_t>(crc >> 8);
    m_sendLength = n;
    return true;
}

bool ModBus::readExactly(size_t from, size_t to) {
    while (from < to) {
        int got = m_connector.ReadBuffer(m_recv + from, static_cast<uint16_t>(to - from), true);
        if (got <= 0)
            break;
        from += static_cast<size_t>(got);
    }
    m_recvLength = from;
    return from == to;
}

ModBus::Attempt ModBus::attempt(const ModBusRequest& r) {
    const char* name = r.name.c_str();

    m_connector.FlushBuffers();
    int written = m_connector.WriteBuffer(m_send, static_cast<uint16_t>(m_sendLength), true);
    if (written != static_cast<int>(m_sendLength)) {
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - WRITE ERROR, WANT %d BYTES, WRITTEN %d",
                name, static_cast<int>(m_sendLength), written);
        return Attempt::Failed;
    }
    if (m_slave == 0)  // broadcast: nobody answers
        return Attempt::Ok;

    m_recvLength = 0;
    if (!readExactly(0, 3)) {
        CLinkStats::noteTimeout();
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - TIMEOUT: GOT %d BYTES", name,
                static_cast<int>(m_recvLength));
        return Attempt::Failed;
    }
    if (m_recv[0] != m_slave) {
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - WRONG ADDRESS: WAIT 0x%02X, GOT 0x%02X",
                name, m_slave, m_recv[0]);
        return Attempt::Failed;
    }
    if ((m_recv[1] & 0x7F) != r.function) {
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - WRONG FUNCTION: WAIT 0x%02X, GOT 0x%02X",
                name, r.function, m_recv[1]);
        return Attempt::Failed;
    }
    size_t total = replySize(m_recv);
    if (total < 5 || total > kMaxFrame) {
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - BAD BYTE COUNT %d", name, m_recv[2]);
        return Attempt::Failed;
    }
    if (!readExactly(3, total)) {
        CLinkStats::noteTimeout();
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - TIMEOUT: WANT %d BYTES, GOT %d", name,
                static_cast<int>(total), static_cast<int>(m_recvLength));
        return Attempt::Failed;
    }
    uint16_t calc = Crc16::modbus(m_recv, total - 2);
    uint16_t read = static_cast<uint16_t>(m_recv[total - 1] << 8 | m_recv[total - 2]);
    if (calc != read) {
        CLinkStats::noteChecksumError();
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - CRC ERROR: read crc 0x%04x != calc crc 0x%04x", name, read, calc);
        return Attempt::Failed;
    }
    if (m_recv[1] & 0x80) {
        m_exception = m_recv[2];
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - EXCEPTION 0x%02X", name, m_exception);
        return Attempt::Final;
    }
    size_t want = expectedDataBytes(r);
    if (want && m_recv[2] != want) {
        MTD_CLOG(m_log, Err, "ModBus::SendRequest('%s') - WRONG BYTE COUNT: WAIT %d, GOT %d", name,
                static_cast<int>(want), m_recv[2]);
        return Attempt::Failed;
    }
    return Attempt::Ok;
}

bool ModBus::SendRequest(const ModBusRequest& r) {
    m_exception = 0;
    if (!makePacket(r))
        return false;
    exchange::Policy policy;
    policy.attempts = kAttempts;
    policy.pause = m_betweenAttempts;
    policy.pauseAfterLast = false;
    policy.gaveUp = "ModBus::SendRequest('%s') - NO VALID REPLY AFTER %d ATTEMPTS";
    return exchange::run(policy, m_log, r.name.c_str(), [&](int) {
        switch (attempt(r)) {
        case Attempt::Ok: return exchange::Outcome::Ok;
        case Attempt::Final: return exchange::Outcome::Final;
        case Attempt::Failed: break;
        }
        return exchange::Outcome::Failed;
    }, [this](std::chrono::milliseconds d) {
        if (m_sleep)
            m_sleep(d);
        else
            std::this_thread::sleep_until(std::chrono::steady_clock::now() + d);
    });
}
