// SPDX-License-Identifier: Apache-2.0
#include "transport/CModbusConnectorItself.h"

#include <modbus.h>
#include <termios.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"

static_assert(CModbusConnectorItself::kMaxAdu == MODBUS_RTU_MAX_ADU_LENGTH, "RawRequest buffer size");

namespace {

constexpr uint32_t kDefaultTimeoutMs = 60000;
constexpr uint32_t kLedOnTimeUs = 150000;

}  // namespace

void CModbusConnectorItself::ContextDeleter::operator()(_modbus* ctx) const {
    modbus_close(ctx);
    modbus_free(ctx);
}

CModbusConnectorItself::CModbusConnectorItself(const PortSettings& settings, const LedPaths& leds)
    : m_settings(settings),
      m_path(settings.hasName ? settings.name : std::string(mtd::defaults::kSerialDevice)),
      m_timeoutMs(settings.timeoutOr(kDefaultTimeoutMs, "CModbusConnectorItself")),
      m_ledTransmit(leds.transmit, kLedOnTimeUs),
      m_ledReceive(leds.receive, kLedOnTimeUs) {
    m_ledTransmit.Start();
    m_ledReceive.Start();
}

CModbusConnectorItself::~CModbusConnectorItself() {
    m_ledTransmit.Stop();
    m_ledReceive.Stop();
}

bool CModbusConnectorItself::open_device() {
    const long baud = m_settings.speedOr(9600);
    const long dataBits = m_settings.dataBits;
    const char parity = m_settings.parity == "E" ? 'E' : m_settings.parity == "O" ? 'O' : 'N';
    const int stopBits = m_settings.stopBits;

    std::lock_guard<std::mutex> lock(m_mutex);
    m_ctx.reset();
    Context ctx(modbus_new_rtu(m_path.c_str(), static_cast<int>(baud), parity, static_cast<int>(dataBits), stopBits));
    if (!ctx) {
        MTD_LOG(Crit, "CModbusConnectorItself::open_device - Unable to allocate libmodbus context and open device %s.",
                m_path.c_str());
        return false;
    }
    // libmodbus prints every frame to standard output in debug mode: only at level 7.
    logger* log = g_logger;
    modbus_set_debug(ctx.get(), log && log->level() >= logger::DEBUG ? TRUE : FALSE);
    modbus_set_slave(ctx.get(), 1);
    m_ctx = std::move(ctx);
    applyTimeouts();
    if (modbus_connect(m_ctx.get()) == -1) {
        MTD_LOG(Crit, "CModbusConnectorItself::open_device - Connection failed. Unable to open device %s.",
                m_path.c_str());
        m_ctx.reset();
        return false;
    }
    return true;
}

void CModbusConnectorItself::close_device() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ctx.reset();
}

bool CModbusConnectorItself::is_open() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_ctx != nullptr;
}

void CModbusConnectorItself::SetTimeout(uint32_t timeout_ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_timeoutMs = timeout_ms;
    applyTimeouts();
}

void CModbusConnectorItself::applyTimeouts() {
    if (!m_ctx)
        return;
    const uint32_t ms = m_timeoutMs;
    const uint64_t responseMs = 2ull * ms;
    modbus_set_byte_timeout(m_ctx.get(), ms / 1000, (ms % 1000) * 1000);
    modbus_set_response_timeout(m_ctx.get(), static_cast<uint32_t>(responseMs / 1000),
                                static_cast<uint32_t>(responseMs % 1000) * 1000);
}

bool CModbusConnectorItself::ReadBackTimeouts(LibTimeouts& out) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ctx)
        return false;
    modbus_get_byte_timeout(m_ctx.get(), &out.byteSec, &out.byteUsec);
    modbus_get_response_timeout(m_ctx.get(), &out.responseSec, &out.responseUsec);
    return true;
}

int CModbusConnectorItself::FlushBuffers() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ctx) {
        errno = EBADF;
        return -1;
    }
    return modbus_flush(m_ctx.get());
}

int CModbusConnectorItself::DrainOutput() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ctx) {
        errno = EBADF;
        return -1;
    }
    return tcdrain(modbus_get_socket(m_ctx.get()));
}

int CModbusConnectorItself::WriteBuffer(const unsigned char*, uint16_t, bool) {
    errno = ENOTSUP;
    return -1;
}

int CModbusConnectorItself::ReadBuffer(unsigned char*, uint16_t, bool) {
    errno = ENOTSUP;
    return -1;
}

int CModbusConnectorItself::ReadBufferCycle(unsigned char*, uint16_t, bool, uint32_t) {
    errno = ENOTSUP;
    return -1;
}

template <class Call>
int CModbusConnectorItself::transaction(int slave, bool blink, Call call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ctx) {
        errno = EBADF;
        return -1;
    }
    if (modbus_set_slave(m_ctx.get(), slave) == -1)
        return -1;
    if (blink)
        m_ledTransmit.Blink(true);
    int rc = call(m_ctx.get());
    if (rc > 0 && blink)
        m_ledReceive.Blink(true);
    return rc;
}

int CModbusConnectorItself::ReadHoldingRegisters(int slave, int address, int count, uint16_t* dest, bool blink) {
    return transaction(slave, blink, [&](modbus_t* ctx) { return modbus_read_registers(ctx, address, count, dest); });
}

int CModbusConnectorItself::ReadInputRegisters(int slave, int address, int count, uint16_t* dest, bool blink) {
    return transaction(slave, blink,
                       [&](modbus_t* ctx) { return modbus_read_input_registers(ctx, address, count, dest); });
}

int CModbusConnectorItself::WriteRegister(int slave, int address, uint16_t value, bool blink) {
    return transaction(slave, blink, [&](modbus_t* ctx) { return modbus_write_register(ctx, address, value); });
}

int CModbusConnectorItself::WriteRegisters(int slave, int address, int count, const uint16_t* src, bool blink) {
    return transaction(slave, blink, [&](modbus_t* ctx) { return modbus_write_registers(ctx, address, count, src); });
}

int CModbusConnectorItself::WriteAndReadRegisters(int slave, int writeAddress, int writeCount, const uint16_t* src,
                                                  int readAddress, int readCount, uint16_t* dest, bool blink) {
    return transaction(slave, blink, [&](modbus_t* ctx) {
        return modbus_write_and_read_registers(ctx, writeAddress, writeCount, src, readAddress, readCount, dest);
    });
}

int CModbusConnectorItself::ReportSlaveId(int slave, int maxLength, uint8_t* dest, bool blink) {
    return transaction(slave, blink, [&](modbus_t* ctx) { return modbus_report_slave_id(ctx, maxLength, dest); });
}

int CModbusConnectorItself::RawRequest(int slave, uint8_t* buffer, int length, bool blink, size_t capacity) {
    return transaction(slave, blink, [&](modbus_t* ctx) {
        if (modbus_send_raw_request(ctx, buffer, length) == -1)
            return -1;
        uint8_t reply[MODBUS_RTU_MAX_ADU_LENGTH];
        int rc = modbus_receive_confirmation(ctx, reply);
        if (rc <= 0)
            return rc;
        if (static_cast<size_t>(rc) > capacity) {
            MTD_LOG(Err, "CModbusConnectorItself::RawRequest - reply of %d bytes does not fit %zu.", rc, capacity);
            errno = EMSGSIZE;
            return -1;
        }
        std::memcpy(buffer, reply, static_cast<size_t>(rc));
        return rc;
    });
}
