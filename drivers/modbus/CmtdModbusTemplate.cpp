// SPDX-License-Identifier: Apache-2.0
// Any Modbus RTU meter from a register-map template ("modbus:<template>").
//
// The exchange is plain Modbus RTU, master and one slave per meter:
//   read holding registers  SS 03 AH AL NH NL CRC    -> SS 03 BC <2*N data> CRC
//   read input registers    SS 04 ...                 -> SS 04 BC ...
//   read coils / inputs     SS 01|02 AH AL NH NL CRC  -> SS 01|02 BC <bits, LSB first> CRC
//   write registers         SS 10 AH AL NH NL BC <data> CRC -> SS 10 AH AL NH NL CRC
//   refusal                 SS 80|FN EC CRC; EC 02 illegal data address, 06 slave busy
// The CRC is CRC-16/MODBUS, low byte first; registers go high byte first on
// the wire, and how a 32- or 64-bit value spreads over several registers is
// the maker's choice, which is why the template names the word and byte order.
// A frame ends with 3.5 character times of silence; a slave needs at least
// that long after its answer before the next request.
//
// What the driver does with a template, per cycle: the clock (init), the
// serial number against the configured one, then every value in as few read
// transactions as the template's limit allows (adjacent registers of one kind
// share a read; gaps are never read, a slave may refuse an unmapped address).
// A merged read refused with 02 is asked again value by value, so one
// unmapped register costs one value, not its neighbours. 06 (busy) is asked
// again after a second. No answer or a damaged one is asked again up to the
// template's "attempts"; a meter that answers none of the value reads ends
// the cycle as disconnected.
//
// Records: a template may describe a readable archive (a register window
// showing one record, selected by record number or by time); it is read like
// any archive and the store keeps each record once. For an archive the meter
// does not show, the daemon keeps its own: the totals read first in each hour
// (by the meter's clock) become that hour's record, stamped with the hour and
// marked "source" = "daemon" with the meter time they were read at
// ("read_at"); the one of the contract hour is also the daily record. An hour
// with no reading (line down, daemon stopped) has no record: a gap stays a
// gap. After a restart the store's newest record decides what is new, so
// nothing is made twice.
//
// Sources of the protocol facts: the Modbus Application Protocol, V1.1b3
// (function codes 01-04 and 16, exception codes, the 125-register and 2000-bit
// read limits), and Modbus over Serial Line, V1.02 (RTU framing, CRC, the 3.5
// character silence), both published by modbus.org. Device
// register maps come from the makers' manuals through the templates.

#include "drivers/modbus/CmtdModbusTemplate.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "protocols/ModBus.h"
#include "transport/CConnector.h"
#include "transport/CLinkStats.h"
#include "transport/CModbusConnectorItself.h"

namespace {

constexpr const char* kModelPrefix = "modbus:";
constexpr uint8_t kExIllegalAddress = 0x02;
constexpr uint8_t kExBusy = 0x06;
constexpr int kBusyRetries = 3;
// A meter clock this far from the server's is reported.
constexpr time_t kClockWarning = 300;
// Records of a readable archive asked in one pass at most (62 days of hours).
constexpr uint32_t kMaxRecordsPerRead = 1488;

using Reply = CmtdModbusTemplate::Reply;

const char* kindName(ModbusKind k) {
    switch (k) {
    case ModbusKind::Holding: return "holding";
    case ModbusKind::Input: return "input";
    case ModbusKind::Coil: return "coil";
    default: return "discrete";
    }
}

}  // namespace

// A line that carries whole Modbus transactions.
class CmtdModbusTemplate::Line {
public:
    virtual ~Line() = default;
    // count registers (one word each) or bits (0 or 1 each) into out.
    virtual Reply read(ModbusKind kind, int slave, uint16_t address, uint16_t count, uint16_t* out,
                       const char* what) = 0;
    virtual Reply write(int slave, uint16_t address, uint16_t count, const uint16_t* src, const char* what) = 0;
};

namespace {

// Over the libmodbus connector ("protocol" = "modbus"): libmodbus frames and
// checks; the attempts are ours, with the input flushed in between so that
// the rest of a damaged answer is not taken for the next one.
class LibmodbusLine : public CmtdModbusTemplate::Line {
public:
    LibmodbusLine(CModbusConnectorItself& mb, int attempts) : m_mb(mb), m_attempts(attempts) {}

    Reply read(ModbusKind kind, int slave, uint16_t address, uint16_t count, uint16_t* out, const char*) override {
        return attempt([&] {
            if (kind == ModbusKind::Holding)
                return m_mb.ReadHoldingRegisters(slave, address, count, out, true);
            if (kind == ModbusKind::Input)
                return m_mb.ReadInputRegisters(slave, address, count, out, true);
            std::vector<uint8_t> bits(count);
            const int rc = kind == ModbusKind::Coil ? m_mb.ReadCoils(slave, address, count, bits.data(), true)
                                                    : m_mb.ReadDiscreteInputs(slave, address, count, bits.data(), true);
            for (uint16_t i = 0; rc == count && i < count; ++i)
                out[i] = bits[i] ? 1 : 0;
            return rc;
        }, count);
    }
    Reply write(int slave, uint16_t address, uint16_t count, const uint16_t* src, const char*) override {
        return attempt([&] { return m_mb.WriteRegisters(slave, address, count, src, true); }, count);
    }

private:
    template <class Call>
    Reply attempt(Call call, int want) {
        Reply r;
        for (int i = 0; i < m_attempts; ++i) {
            if (i > 0)
                CLinkStats::noteRetry();
            errno = 0;
            const int rc = call();
            const int err = errno;
            if (rc == want) {
                r.status = Reply::Ok;
                return r;
            }
            if (const uint8_t code = CModbusConnectorItself::exceptionCode(err)) {
                r.status = Reply::Refused;
                r.exception = code;
                return r;
            }
            if (err == ETIMEDOUT)
                CLinkStats::noteTimeout();
            else
                CLinkStats::noteChecksumError();
            m_mb.FlushBuffers();
        }
        return r;
    }

    CModbusConnectorItself& m_mb;
    int m_attempts;
};

// Over a plain UART (a line whose first meter set it up that way): the
// program's own framing, which makes its own attempts.
class UartLine : public CmtdModbusTemplate::Line {
public:
    UartLine(CConnector& conn, long long logId, const char* name, ModBus::Sleep sleep)
        : m_proto(conn, 1, logId, name, std::chrono::milliseconds(200), std::move(sleep)) {}

    Reply read(ModbusKind kind, int slave, uint16_t address, uint16_t count, uint16_t* out,
               const char* what) override {
        static const uint8_t kFunction[] = {ModBus::kReadHoldingRegisters, ModBus::kReadInputRegisters,
                                            ModBus::kReadCoils, ModBus::kReadDiscreteInputs};
        ModBusRequest req;
        req.name = what;
        req.function = kFunction[static_cast<int>(kind)];
        req.address = address;
        req.count = count;
        m_proto.setSlave(static_cast<uint8_t>(slave));
        Reply r = outcome(m_proto.SendRequest(req));
        if (r.status != Reply::Ok)
            return r;
        const bool bits = kind == ModbusKind::Coil || kind == ModbusKind::Discrete;
        for (uint16_t i = 0; i < count; ++i)
            out[i] = bits ? static_cast<uint16_t>(m_proto.data()[i / 8] >> (i % 8) & 1) : m_proto.registerAt(i);
        return r;
    }
    Reply write(int slave, uint16_t address, uint16_t count, const uint16_t* src, const char* what) override {
        ModBusRequest req;
        req.name = what;
        req.function = ModBus::kWriteMultipleRegisters;
        req.address = address;
        req.count = count;
        req.values.assign(src, src + count);
        m_proto.setSlave(static_cast<uint8_t>(slave));
        return outcome(m_proto.SendRequest(req));
    }

private:
    Reply outcome(bool ok) const {
        Reply r;
        r.status = ok ? Reply::Ok : m_proto.exceptionCode() ? Reply::Refused : Reply::NoAnswer;
        r.exception = m_proto.exceptionCode();
        return r;
    }
    ModBus m_proto;
};

}  // namespace

CmtdModbusTemplate::CmtdModbusTemplate() = default;

CmtdModbusTemplate::~CmtdModbusTemplate() { StopPolling(); }

void CmtdModbusTemplate::SaveConnector(CConnector* connector) {
    m_connector = connector;
    if (!m_triedLoad) {
        m_triedLoad = true;
        const std::string model = m_config.get("manufacturer");
        const std::string name = model.compare(0, 7, kModelPrefix) == 0 ? model.substr(7) : model;
        std::vector<std::string> dirs = paths().templateDirs;
        if (m_config.has("template_dir"))
            dirs.insert(dirs.begin(), m_config.get("template_dir"));
        const std::string file = findModbusTemplate(name, dirs);
        std::string error;
        if (file.empty()) {
            // Named by where a site's own template would go.
            std::string dir = dirs.empty() ? std::string() : dirs.front();
            if (!dir.empty() && dir.back() != '/')
                dir += '/';
            error = dir + name + ".json: (file): not found";
        }
        else if (loadModbusTemplate(file, m_tpl, error))
            m_loaded = true;
        if (!m_loaded) {
            MTD_DLOG(Err, "BAD TEMPLATE %s", error.c_str());
            return;
        }
        m_slave = m_tpl.slave;
        if (m_config.has("address")) {
            const int a = std::atoi(m_config.get("address").c_str());
            if (a >= 1 && a <= 247)
                m_slave = a;
            else
                MTD_DLOG(Warning, "CmtdModbusTemplate: address '%s' is no slave id, %d is used",
                         m_config.get("address").c_str(), m_slave);
        }
        for (const ModbusValue& v : m_tpl.values)
            m_valueFields.push_back(v.field);
        m_valuePlan = planModbusReads(m_valueFields, m_tpl.maxRegisters, m_tpl.maxBits);
        MTD_DLOG(Info, "CmtdModbusTemplate: template %s: %zu values in %zu reads, slave %d", m_tpl.file.c_str(),
                 m_tpl.values.size(), m_valuePlan.size(), m_slave);
    }
    m_line.reset();
    if (!connector || !m_loaded)
        return;
    // The template's line settings stand in for those the configuration leaves out.
    PortSettings& port = connector->transport().settings();
    const PortSettings before = port;
    if (!m_tpl.speed.empty() && !m_config.has("speed"))
        port.speed = std::atol(m_tpl.speed.c_str());
    if (!m_tpl.data.empty() && !m_config.has("data"))
        port.dataBits = std::atol(m_tpl.data.c_str());
    // Any letter but E and O is no parity, as the serial connectors read it.
    const auto parityOf = [](const std::string& p) { return p == "E" || p == "O" ? p : std::string("N"); };
    if (!m_tpl.parity.empty() && !m_config.has("parity") && parityOf(port.parity) != m_tpl.parity)
        port.parity = m_tpl.parity;
    if (!m_tpl.stop.empty() && !m_config.has("stop"))
        port.stopBits = std::atoi(m_tpl.stop.c_str());
    const bool changed = port.speed != before.speed || port.dataBits != before.dataBits ||
                         port.parity != before.parity || port.stopBits != before.stopBits;
    if (changed && connector->is_open())
        connector->close_device();
    if (CModbusConnectorItself* mb = connector->modbus())
        m_line = std::make_unique<LibmodbusLine>(*mb, m_tpl.attempts);
    else
        m_line = std::make_unique<UartLine>(*connector, logId(), driverName(),
                                            [this](std::chrono::milliseconds d) { sleepFor(d); });
}

Reply CmtdModbusTemplate::readBlock(ModbusKind kind, uint16_t address, uint16_t count, uint16_t* out,
                                    const char* what) {
    Reply r;
    for (int busy = 0; busy <= kBusyRetries; ++busy) {
        r = m_line->read(kind, m_slave, address, count, out, what);
        if (r.status != Reply::Refused || r.exception != kExBusy)
            break;
        MTD_DLOG(Info, "CmtdModbusTemplate: '%s' %s %u+%u: slave busy, asked again in 1 s", what, kindName(kind),
                 address, count);
        if (!sleepFor(std::chrono::seconds(1)))
            break;
    }
    if (r.status == Reply::Refused)
        MTD_DLOG(Warning, "CmtdModbusTemplate: '%s' %s %u+%u REFUSED, EXCEPTION %02X", what, kindName(kind), address,
                 count, r.exception);
    else if (r.status == Reply::NoAnswer)
        MTD_DLOG(Warning, "CmtdModbusTemplate: '%s' %s %u+%u: NO ANSWER", what, kindName(kind), address, count);
    return r;
}

Reply CmtdModbusTemplate::writeSelect(uint16_t address, uint32_t value) {
    const uint16_t words[2] = {static_cast<uint16_t>(value >> 16), static_cast<uint16_t>(value & 0xFFFF)};
    Reply r;
    for (int busy = 0; busy <= kBusyRetries; ++busy) {
        r = m_line->write(m_slave, address, 2, words, "Select Record");
        if (r.status != Reply::Refused || r.exception != kExBusy || !sleepFor(std::chrono::seconds(1)))
            break;
    }
    return r;
}

void CmtdModbusTemplate::readFields(const std::vector<ModbusField>& fields, const std::vector<ModbusBlock>& plan,
                                    std::vector<std::vector<uint16_t>>& regs, std::vector<bool>& ok) {
    regs.assign(fields.size(), {});
    ok.assign(fields.size(), false);
    size_t answered = 0;
    for (const ModbusBlock& b : plan) {
        std::vector<uint16_t> buf(b.count);
        Reply r = readBlock(b.kind, b.address, b.count, buf.data(), "Read Values");
        if (r.status == Reply::Ok) {
            ++answered;
            for (size_t i : b.items) {
                const ModbusField& f = fields[i];
                const auto* first = buf.data() + (f.address - b.address);
                regs[i].assign(first, first + f.count());
                ok[i] = true;
            }
            continue;
        }
        if (r.status == Reply::Refused)
            ++answered;
        if (r.status != Reply::Refused || r.exception != kExIllegalAddress || b.items.size() < 2)
            continue;
        for (size_t i : b.items) {
            const ModbusField& f = fields[i];
            regs[i].resize(f.count());
            ok[i] = readBlock(f.kind, f.address, f.count(), regs[i].data(), "Read Value").status == Reply::Ok;
        }
    }
    if (!plan.empty() && answered == 0) {
        m_connector->FlushBuffers();
        throw CDisconnectException("no answer to any value read");
    }
}

bool CmtdModbusTemplate::readClock(const ModbusClock& clock, const uint16_t* regs, time_t& t, const char* where) {
    if (clock.unixSeconds) {
        const uint64_t s = decodeModbusInteger(clock.field, regs);
        if (s == 0 || s > 0xFFFFFFFFull) {
            MTD_DLOG(Err, "CmtdModbusTemplate: %s: %llu IS NOT A TIME", where, static_cast<unsigned long long>(s));
            return false;
        }
        t = static_cast<time_t>(s);
        return true;
    }
    const int y = regs[0], mo = regs[1], d = regs[2], h = regs[3], mi = regs[4], s = regs[5];
    if (y < 2000 || y > 2099 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) {
        MTD_DLOG(Err, "CmtdModbusTemplate: %s: %04d-%02d-%02d,%02d:%02d:%02d IS NOT A TIME", where, y, mo, d, h, mi,
                 s);
        return false;
    }
    t = fromDeviceTime(y, mo, d, h, mi, s);
    return true;
}

bool CmtdModbusTemplate::readDeviceTime(time_t& t) {
    if (!m_tpl.clock.present) {
        t = now();  // no clock in the map: the server's time stands in
        return true;
    }
    const ModbusField& f = m_tpl.clock.field;
    const uint16_t n = m_tpl.clock.unixSeconds ? f.count() : 6;
    uint16_t regs[6] = {};
    if (readBlock(f.kind, f.address, n, regs, "Read Time").status != Reply::Ok)
        return false;
    return readClock(m_tpl.clock, regs, t, "clock");
}

bool CmtdModbusTemplate::init() {
    // Quiet: the Error line of the template was written once, at start.
    if (!m_loaded || !m_line)
        throw CWrongPacketException("no usable template, the meter is not polled");
    MTD_DLOG(Info, "Modbus template driver version %02X.%02X, compiled: %s %s", 1, 0, __DATE__, __TIME__);
    const std::string systems = m_config.get("systems");
    m_sys = systems.empty() ? "1" : systems.substr(0, systems.find_first_of(", "));
    time_t t = 0;
    if (!readDeviceTime(t)) {
        m_connector->FlushBuffers();
        throw CDisconnectException("no meter time");
    }
    m_deviceTime = t;
    const time_t server = now();
    if (m_tpl.clock.present && std::llabs(static_cast<long long>(t - server)) > kClockWarning)
        MTD_DLOG(Warning, "CmtdModbusTemplate: METER CLOCK DIFFERS FROM THE SERVER BY %lld s",
                 static_cast<long long>(t - server));
    return true;
}

bool CmtdModbusTemplate::GetTimestamps(time_t& deviceTime, int& rateHour) {
    deviceTime = m_deviceTime;
    rateHour = contractHour();
    return m_deviceTime != 0;
}

int CmtdModbusTemplate::contractHour() const { return static_cast<int>(rateHourOffset() / 3600); }

std::vector<CValueRecord> CmtdModbusTemplate::get_all_system_values() {
    std::vector<CValueRecord> out;
    if (!m_loaded || !m_tpl.hasSerial)
        return out;
    const ModbusField& f = m_tpl.serial;
    std::vector<uint16_t> regs(f.count());
    if (readBlock(f.kind, f.address, f.count(), regs.data(), "Read Serial Number").status != Reply::Ok)
        return out;
    const std::string serial = f.format == ModbusField::Text ? decodeModbusText(f, regs.data())
                                                              : std::to_string(decodeModbusInteger(f, regs.data()));
    const std::string given = m_config.serial_text.empty() ? m_config.true_serial : m_config.serial_text;
    if (!given.empty() && serial != given) {
        MTD_DLOG(Err, "CmtdModbusTemplate::get_all_system_values() - READ SERIAL '%s' != GIVEN SERIAL '%s' !!!",
                 serial.c_str(), given.c_str());
        throw CWrongPacketException("serial number mismatch");
    }
    out.push_back(makeValue("SerialNumber", serial, DU_UNKNOWN, m_deviceTime, m_sys));
    return out;
}

bool CmtdModbusTemplate::scaledValue(const ModbusValue& v, const uint16_t* regs, double& out) const {
    const double raw = decodeModbusNumber(v.field, regs);
    out = raw * v.scale + v.offset;
    return std::isfinite(out);
}

std::string CmtdModbusTemplate::formatValue(const ModbusValue& v, double scaled) const {
    char buf[64];
    const bool integer = v.field.format != ModbusField::Float32 && v.field.format != ModbusField::Float64 &&
                         v.scale == 1.0 && v.offset == 0.0;
    if (v.decimals < 0 && integer)
        std::snprintf(buf, sizeof buf, "%.0f", scaled);
    else
        std::snprintf(buf, sizeof buf, "%.*f", v.decimals < 0 ? 5 : v.decimals, scaled);
    return buf;
}

std::string CmtdModbusTemplate::clockText(time_t t) const { return deviceTimeText(t); }

std::vector<CValueRecord> CmtdModbusTemplate::get_all_curtime_cur_integ_values() {
    std::vector<CValueRecord> out;
    if (!m_loaded)
        return out;
    time_t t = 0;
    if (!readDeviceTime(t))
        throw CNoDateTimeException("no meter time");
    m_deviceTime = t;
    std::vector<std::vector<uint16_t>> regs;
    std::vector<bool> ok;
    readFields(m_valueFields, m_valuePlan, regs, ok);

    out.push_back(makeValue("DateTime", clockText(t), DU_UNKNOWN, t, m_sys));

    std::vector<std::pair<std::string, std::string>> totals;
    bool allTotals = true;
    for (size_t i = 0; i < m_tpl.values.size(); ++i) {
        const ModbusValue& v = m_tpl.values[i];
        double value = 0;
        if (!ok[i]) {
            allTotals = allTotals && !v.total;
            continue;
        }
        if (!scaledValue(v, regs[i].data(), value)) {
            MTD_DLOG(Warning, "CmtdModbusTemplate: '%s' IS NOT A NUMBER", v.name.c_str());
            allTotals = allTotals && !v.total;
            continue;
        }
        out.push_back(makeValue(v.name, formatValue(v, value), v.unit, t, m_sys));
        if (v.total)
            totals.emplace_back(v.name, out.back().value);
    }
    if (!totals.empty() && allTotals)
        keepRecords(t, totals);
    else if (!totals.empty())
        MTD_DLOG(Info, "CmtdModbusTemplate: not every total came; no record is made from this reading");
    return out;
}

// ---- records the daemon keeps ----

void CmtdModbusTemplate::keepRecords(time_t readAt, const std::vector<std::pair<std::string, std::string>>& totals) {
    const time_t hour = readAt - readAt % 3600;
    for (int kind = ARCH_HOURLY; kind <= ARCH_DAILY; ++kind) {
        const ModbusArchive& shown = kind == ARCH_HOURLY ? m_tpl.hourly : m_tpl.daily;
        if (shown.present)
            continue;
        if (kind == ARCH_DAILY && toDeviceTime(hour).tm_hour != contractHour())
            continue;
        Kept& k = m_kept[kind];
        if (!k.fromStore) {
            k.lastMade = std::max(k.lastMade, lastStoredTime(kind));
            k.fromStore = true;
        }
        if (hour <= k.lastMade)
            continue;
        ArchiveRecord rec;
        rec.sys = std::atoi(m_sys.c_str());
        rec.timestamp = hour;
        rec.fields = totals;
        rec.fields.emplace_back("source", "daemon");
        rec.fields.emplace_back("read_at", std::to_string(static_cast<long long>(readAt)));
        k.lastMade = hour;
        k.pending.push_back(std::move(rec));
        MTD_DLOG(Info, "CmtdModbusTemplate: %s record %lld made from the reading at %lld",
                 kind == ARCH_HOURLY ? "hourly" : "daily", static_cast<long long>(hour),
                 static_cast<long long>(readAt));
    }
}

void CmtdModbusTemplate::pendingRecords(CArchiveSink& sink) {
    Kept& k = m_kept[sink.type()];
    const time_t stored = sink.stored();
    // What the store holds is done with; what it refused waits for the next reader.
    while (!k.pending.empty() && k.pending.front().timestamp <= stored)
        k.pending.pop_front();
    for (const ArchiveRecord& r : k.pending) {
        if (!offer(sink, r, -1))
            break;
    }
    sink.endBlock();
}

bool CmtdModbusTemplate::offer(CArchiveSink& sink, const ArchiveRecord& rec, long long number) {
    CArchiveSink::Verdict v = sink.add(rec, number);
    if (v == CArchiveSink::Gap) {
        sink.resync();
        v = sink.add(rec, number);
        if (v == CArchiveSink::Gap)
            MTD_DLOG(Warning, "CmtdModbusTemplate: record time %lld is off the %s grid, not stored",
                     static_cast<long long>(rec.timestamp), archTypeName(sink.type()));
    }
    return v != CArchiveSink::Stop;
}

time_t CmtdModbusTemplate::periodOf(int archType) const { return archType == ARCH_DAILY ? 86400 : 3600; }

time_t CmtdModbusTemplate::gridOffsetOf(int archType) const {
    if (archType != ARCH_DAILY)
        return 0;
    const time_t offset = (static_cast<time_t>(contractHour()) - deviceTzHours()) * 3600;
    return ((offset % 86400) + 86400) % 86400;
}

// ---- a readable archive ----

bool CmtdModbusTemplate::readRecord(const ModbusArchive& a, uint32_t select, ArchiveRecord& rec, bool& missing) {
    missing = false;
    Reply r = writeSelect(a.selectAddress, select);
    if (r.status == Reply::Ok) {
        std::vector<uint16_t> regs(a.windowCount);
        r = readBlock(a.windowKind, a.windowAddress, a.windowCount, regs.data(), "Read Record");
        if (r.status == Reply::Ok) {
            time_t t = 0;
            if (!readClock(a.time, regs.data() + a.time.field.address, t, "record")) {
                missing = true;
                return false;
            }
            rec.timestamp = t;
            rec.sys = std::atoi(m_sys.c_str());
            rec.fields.clear();
            for (const ModbusValue& v : a.fields) {
                double value = 0;
                if (scaledValue(v, regs.data() + v.field.address, value))
                    rec.fields.emplace_back(v.name, formatValue(v, value));
            }
            rec.fields.emplace_back("source", "meter");
            return true;
        }
    }
    if (r.status == Reply::Refused && r.exception == kExIllegalAddress) {
        missing = true;  // no record under that number or time
        return false;
    }
    m_connector->FlushBuffers();
    throw CDisconnectException("archive read broken off");
}

void CmtdModbusTemplate::readArchive(const ModbusArchive& a, CArchiveSink& sink) {
    const time_t period = periodOf(sink.type());
    const time_t from = sink.from(), to = sink.to();
    ArchiveRecord rec;
    bool missing = false;
    if (a.byTime) {
        // Each time of the grid in the window, asked for in turn.
        const time_t offset = gridOffsetOf(sink.type());
        time_t t = from + ((offset - from) % period + period) % period;
        for (uint32_t n = 0; t <= to && n < kMaxRecordsPerRead; t += period, ++n) {
            if (!readRecord(a, static_cast<uint32_t>(t), rec, missing))
                continue;  // the meter has no record at that time
            if (rec.timestamp != t) {
                MTD_DLOG(Warning, "CmtdModbusTemplate: record asked for %lld came as %lld, not stored",
                         static_cast<long long>(t), static_cast<long long>(rec.timestamp));
                continue;
            }
            if (!offer(sink, rec, -1) || !sink.endBlock())
                return;
        }
        return;
    }
    uint16_t regs[2] = {};
    if (readBlock(a.newest.kind, a.newest.address, a.newest.count(), regs, "Read Newest Record").status != Reply::Ok)
        throw CDisconnectException("no newest record number");
    const uint32_t newest = static_cast<uint32_t>(decodeModbusInteger(a.newest, regs));
    if (newest == 0 || !readRecord(a, newest, rec, missing))
        return;  // an empty archive, or its newest record is not there (yet)
    // Records are one period apart, so the newest one's time tells where the
    // window starts; from there the records are read oldest first, and the
    // sink stores them block by block, so a broken transfer keeps what it had.
    const uint32_t oldest = newest >= a.depth ? newest - a.depth + 1 : 1;
    uint32_t n = newest;
    if (rec.timestamp > from) {
        const uint64_t back = static_cast<uint64_t>(rec.timestamp - from + period - 1) / static_cast<uint64_t>(period);
        n = back >= newest - oldest ? oldest : newest - static_cast<uint32_t>(back);
    }
    n = std::max(n, newest > kMaxRecordsPerRead ? newest - kMaxRecordsPerRead + 1 : 1u);
    for (uint64_t k = n; k <= newest; ++k) {  // 64 bits: newest may be the largest u32
        if (!readRecord(a, static_cast<uint32_t>(k), rec, missing))
            continue;  // a number the meter no longer (or never) had
        if (!offer(sink, rec, static_cast<long long>(k)) || !sink.endBlock())
            return;
    }
}

bool CmtdModbusTemplate::hasArchive(int archType) const {
    return m_loaded && (archType == ARCH_HOURLY || archType == ARCH_DAILY);
}

void CmtdModbusTemplate::get_arch_values(CArchiveSink& sink) {
    // The base has refused other kinds and ended the window at the meter's clock.
    const int archType = sink.type();
    sink.setInterval(periodOf(archType), true, gridOffsetOf(archType));
    const ModbusArchive& a = archType == ARCH_HOURLY ? m_tpl.hourly : m_tpl.daily;
    if (a.present)
        readArchive(a, sink);
    else
        pendingRecords(sink);
}
void CmtdModbusTemplate::writeGasPasport() {
    std::map<std::string, std::string> values;
    if (GetGasPassportParams(values))
        MTD_DLOG(Warning, "CmtdModbusTemplate::writeGasPasport() - DEVICE '%s' (VERSION %d) DOESN'T SUPPORT GAS PASSPORT !!!",
                 m_tpl.name.c_str(), 1);
}
