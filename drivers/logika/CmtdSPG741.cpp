// SPDX-License-Identifier: Apache-2.0
#include "drivers/logika/CmtdSPG741.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "framework/CArchiveSink.h"
#include "transport/CConnector.h"

namespace {

using namespace spg741;

constexpr uint8_t kVersionMajor = 0x01, kVersionMinor = 0x00;
constexpr size_t kHeaderSize = 4;
constexpr uint32_t kPage = CM4MemoryConnector::kPageSize;
// Headers or journal records read in one go: eight flash pages.
constexpr uint32_t kBlockBytes = CM4MemoryConnector::kMaxPages * CM4MemoryConnector::kPageSize;
constexpr size_t kUnitCount = sizeof kUnitParams / sizeof kUnitParams[0];

uint32_t le(const uint8_t* p, size_t n) {
    uint32_t v = 0;
    for (size_t i = n; i-- > 0;)
        v = v << 8 | p[i];
    return v;
}

// Microchip 32-bit float as the meter keeps it, low byte first: m0 m1 (s|m2) e.
// The same fields as IEEE single precision with the sign moved below the
// exponent; the meter's all-ones exponent is a large number, not a NaN.
double microchipFloat(const uint8_t* p) {
    uint32_t bits = static_cast<uint32_t>(p[2] & 0x80) << 24 | static_cast<uint32_t>(p[3]) << 23 |
                    static_cast<uint32_t>(p[2] & 0x7F) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[0];
    if ((bits & 0x7F800000u) == 0x7F800000u)
        bits &= 0xFF7FFFFFu;
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

double valueOf(Type type, const uint8_t* p) {
    switch (type) {
    case Type::MFloat: return microchipFloat(p);
    case Type::I32MF: return static_cast<double>(static_cast<int32_t>(le(p, 4))) + microchipFloat(p + 4);
    case Type::Bits16: return le(p, 2);
    }
    return NAN;
}

// A settings entry: its text (empty when never set) and its binary byte.
struct DbEntry {
    std::string text;
    uint8_t binary;
};
DbEntry dbEntry(const std::vector<uint8_t>& db, uint32_t param) {
    const uint8_t* p = db.data() + param * kDbEntrySize.value;
    DbEntry e{std::string(), p[12]};
    if (p[4] == 0xFF)
        return e;
    e.text.assign(reinterpret_cast<const char*>(p + 4), 8);
    e.text.erase(std::find(e.text.begin(), e.text.end(), '\0'), e.text.end());
    const size_t first = e.text.find_first_not_of(' '), last = e.text.find_last_not_of(' ');
    e.text = first == std::string::npos ? std::string() : e.text.substr(first, last - first + 1);
    return e;
}

// An integer setting in [lo, hi]; -1 otherwise.
int intSetting(const DbEntry& e, int lo, int hi) {
    char* end = nullptr;
    const long v = std::strtol(e.text.c_str(), &end, 10);
    return e.text.empty() || *end != '\0' || v < lo || v > hi ? -1 : static_cast<int>(v);
}

const Ring* findRing(int archType) {
    for (const Ring* r : kRings)
        if (r->archType == archType)
            return r;
    return nullptr;
}

}  // namespace

CmtdSPG741::CmtdSPG741() {
    // The meter answers the session start at once, like the memory reads:
    // the reply is waited for, not a fixed pause.
    m_timing.afterSend = std::chrono::milliseconds(0);
}

CmtdSPG741::~CmtdSPG741() {
    StopPolling();
}

void CmtdSPG741::setTiming(M4::Timing timing, ProtocolSleep sleep) {
    m_timing = timing;
    m_sleep = std::move(sleep);
}

void CmtdSPG741::SaveConnector(CConnector* connector) {
    m_connector = connector;
    m_netAddr = static_cast<uint8_t>(std::atoi(m_config.get("address").c_str()) & 0xFF);
    // The 1 s pauses between attempts end at a stop: a stop on a silent line
    // would otherwise wait out three of them for every request still to go.
    ProtocolSleep sleep = m_sleep ? m_sleep : [this](std::chrono::milliseconds d) { sleepFor(d); };
    m_proto = connector ? std::make_unique<CM4MemoryConnector>(*connector, m_netAddr, logId(), driverName(), m_timing,
                                                               std::move(sleep))
                        : nullptr;
}

bool CmtdSPG741::init() {
    MTD_DLOG(Info, "SPG741 driver version %02X.%02X, compiled: %s %s", kVersionMajor, kVersionMinor,
            __DATE__, __TIME__);
    const std::string systems = m_config.get("systems");
    takeSystem();
    MTD_DLOG(Info, "CmtdSPG741::init() - serial '%s', address %d, systems %s, device TZ = %d",
            m_config.serial_text.c_str(), m_netAddr, systems.c_str(), deviceTzHours());
    if (m_config.speed > static_cast<int>(kMaxBaud.value))
        MTD_DLOG(Warning, "CmtdSPG741::init() - SPEED %d IS ABOVE THE METER'S %u Bd !!!", m_config.speed,
                static_cast<unsigned>(kMaxBaud.value));
    if (!m_proto)
        throw CDisconnectException("no connector");
    if (!m_proto->startSession(m_ident)) {
        // A hung-up line stays dead on the old descriptor: reopen it next cycle.
        m_connector->close_device();
        throw CDisconnectException("no answer to the session start");
    }
    MTD_DLOG(Info, "CmtdSPG741::init() - identifier 0x%02X%02X, firmware version 0x%02X",
            m_ident[0], m_ident[1], m_ident[2]);
    if ((static_cast<uint32_t>(m_ident[0]) << 8 | m_ident[1]) != kIdent.value) {
        MTD_DLOG(Err, "CmtdSPG741::init() - DEVICE 0x%02X%02X IS NOT AN SPG741 !!!", m_ident[0],
                m_ident[1]);
        throw CWrongPacketException("not an SPG741");
    }
    return true;
}

void CmtdSPG741::cycle_end() {
    // The dialect has no closing frame; the meter ends the session after 30
    // minutes of silence. The next cycle starts a new one.
    m_haveSettings = false;
    MTD_DLOG(Info, "CmtdSPG741::cycle_end() - session left");
}

bool CmtdSPG741::readSettings() {
    if (m_haveSettings)
        return true;
    uint32_t lastParam = std::max(kParamScheme.value, std::max(kParamRateHour.value, kParamRateDay.value));
    for (const auto& u : kUnitParams)
        lastParam = std::max(lastParam, u.param);
    std::vector<uint8_t> db, head;
    if (!m_proto || !m_proto->readFlashBytes("Read Settings", kDbAddress.value, (lastParam + 1) * kDbEntrySize.value, db) ||
        !m_proto->readFlashBytes("Read Serial & Totals", kSerialAddress.value,
                                 kTotalsAddress.value + kTotalsSize - kSerialAddress.value, head))
        return false;
    m_scheme = intSetting(dbEntry(db, kParamScheme.value), 0, 6);
    m_rateHour = intSetting(dbEntry(db, kParamRateHour.value), 0, 23);
    m_rateDay = intSetting(dbEntry(db, kParamRateDay.value), 1, 31);
    // The high bits of a unit's binary byte are not the unit's.
    for (size_t i = 0; i < kUnitCount; ++i)
        m_units[i] = dbEntry(db, kUnitParams[i].param).binary & 0x03;
    m_serial = le(head.data(), 3);
    for (size_t i = 0; i < sizeof kTotals / sizeof kTotals[0]; ++i)
        m_totals[i] = valueOf(kTotals[i].type, head.data() + (kTotalsAddress.value - kSerialAddress.value) + kTotals[i].offset);
    m_haveSettings = true;
    return true;
}

bool CmtdSPG741::sensorPressureFactor(int unitParam, double& factor) const {
    return m4PressureFactor(m_units[unitParam], "sensorPressureFactor", factor);
}

bool CmtdSPG741::readClock(time_t& t) {
    std::vector<uint8_t> clock;
    const size_t n = std::max(kRamDate.value, kRamTime.value) + 3 - std::min(kRamDate.value, kRamTime.value);
    const uint16_t at = static_cast<uint16_t>(std::min(kRamDate.value, kRamTime.value));
    if (!m_proto || !m_proto->readRam("Read Date & Time", at, n, clock))
        return false;
    const uint8_t* d = clock.data() + (kRamDate.value - at);
    const uint8_t* h = clock.data() + (kRamTime.value - at);
    if (d[0] > 99 || d[1] < 1 || d[1] > 12 || d[2] < 1 || d[2] > 31 || h[0] > 23 || h[1] > 59 || h[2] > 59) {
        MTD_DLOG(Err, "CmtdSPG741::readClock() - CAN'T PARSE %02X %02X %02X %02X %02X %02X", d[0], d[1], d[2], h[0], h[1], h[2]);
        return false;
    }
    t = fromDeviceTime(2000 + d[0], d[1], d[2], h[0], h[1], h[2]);
    return true;
}

bool CmtdSPG741::GetTimestamps(time_t& deviceTime, int& rateHour) {
    if (!readClock(deviceTime))
        noDeviceTime("GetTimestamps", "CAN'T GET CURRENT DATETIME, EXCEPTION IS THROWN !!!");
    readSettings();
    rateHour = m_rateHour < 0 ? 0 : m_rateHour;
    return true;
}

std::vector<CValueRecord> CmtdSPG741::get_all_system_values() {
    MTD_DLOG(Info, "--- CmtdSPG741::get_all_system_values() ----------------------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    readClock(now);
    auto add = [&](const char* name, const std::string& value) {
        MTD_DLOG(Info, "CmtdSPG741::get_all_system_values() - %s = %s", name, value.c_str());
        out.push_back(makeValue(name, value, DU_UNKNOWN, now, m_sys));
    };
    if (!readSettings()) {
        MTD_DLOG(Err, "CmtdSPG741::get_all_system_values() - CAN'T READ SERIAL NUMBER !!!");
        return out;
    }
    const std::string serial = std::to_string(m_serial);
    checkSerial(serial);
    char firmware[8];
    std::snprintf(firmware, sizeof firmware, "%02X", m_ident[2]);
    add("SerialNumber", serial);
    add("MeterModel", "SPG741");
    add("Firmware", firmware);
    if (m_rateHour >= 0)
        add("RateHour", std::to_string(m_rateHour));
    else
        MTD_DLOG(Err, "CmtdSPG741::get_all_system_values() - WRONG RATE HOUR %d !!!", m_rateHour);
    if (m_rateDay >= 0)
        add("RateDay", std::to_string(m_rateDay));
    else
        MTD_DLOG(Err, "CmtdSPG741::get_all_system_values() - WRONG RATE DAY %d !!!", m_rateDay);
    add("ArchivePeriod", "60");
    return out;
}

std::vector<CValueRecord> CmtdSPG741::get_all_curtime_cur_integ_values() {
    MTD_DLOG(Info, "--- CmtdSPG741::get_all_curtime_cur_integ_values() -----------------");
    std::vector<uint8_t> ram;
    if (!m_proto || !readSettings() || !m_proto->readRam("Read Current Values", 0, kRamBlockSize, ram))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    time_t now = 0;
    if (!readClock(now))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    std::vector<CValueRecord> out;
    auto add = [&](const char* name, const std::string& value, uint32_t unit) {
        out.push_back(makeValue(name, value, unit, now, m_sys));
    };
    add("DateTime", deviceTimeText(now), DU_UNKNOWN);
    for (size_t i = 0; i < sizeof kTotals / sizeof kTotals[0]; ++i) {
        if (std::isfinite(m_totals[i]))
            add(kTotals[i].name, formatNumber(m_totals[i]), DU_M3);
    }
    for (const auto& v : kCurrent) {
        double value = valueOf(v.type, ram.data() + v.offset);
        double factor = 1;
        if (!std::isfinite(value) || (v.unitParam >= 0 && !sensorPressureFactor(v.unitParam, factor))) {
            MTD_DLOG(Warning, "CmtdSPG741::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", v.name);
            continue;
        }
        const uint32_t unit = v.unitParam >= 0 ? DU_KGF_CM2 : v.name[0] == 'T' ? DU_GRAD : DU_M3_H;
        add(v.name, formatNumber(value * factor), unit);
    }
    char text[32];
    std::snprintf(text, sizeof text, "0x%08X", le(ram.data() + kRamFaults.value, 4));
    add("NS", text, DU_UNKNOWN);
    return out;
}

bool CmtdSPG741::readLastSlot(const Ring& ring, unsigned& slot) {
    std::vector<uint8_t> index;
    if (!m_proto->readFlashBytes("Read Archive Index", ring.indexAddress, 2, index))
        throw CDisconnectException("archive index");
    slot = le(index.data(), 2);
    if (slot >= ring.capacity) {
        MTD_DLOG(Err, "CmtdSPG741::get_arch_values() - WRONG %s INDEX %u OF %u !!!",
                ring.name, slot, static_cast<unsigned>(ring.capacity));
        return false;
    }
    return true;
}

bool CmtdSPG741::headerTime(const Ring& ring, const uint8_t* p, time_t& t) const {
    const uint32_t raw = le(p, 4);
    if (raw == 0 || raw == 0xFFFFFFFFu)
        return false;
    const int hour = ring.archType == ARCH_HOURLY ? p[3] : m_rateHour;
    if (p[0] < 100 || p[1] < 1 || p[1] > 12 || p[2] < 1 || p[2] > 31 || hour < 0 || hour > 23)
        return false;
    t = fromDeviceTime(1900 + p[0], p[1], p[2], hour, 0, 0);
    return true;
}

bool CmtdSPG741::journalTime(const uint8_t* p, time_t& t) const {
    if (p[0] != kJournalMark || p[1] > 99 || p[2] < 1 || p[2] > 12 || p[3] < 1 || p[3] > 31 || p[4] > 23 || p[5] > 59)
        return false;
    t = fromDeviceTime(2000 + p[1], p[2], p[3], p[4], p[5], 0);
    return true;
}

time_t CmtdSPG741::slotsInWindow(const Ring& ring, unsigned last, time_t from, time_t to, std::vector<Slot>& slots) {
    const bool journal = ring.headersAddress == 0;
    const size_t size = journal ? ring.recordSize : kHeaderSize;
    const uint32_t base = journal ? ring.recordsAddress : ring.headersAddress;
    std::vector<uint8_t> block;
    time_t newer = 0, newest = 0;
    unsigned blockFirst = 0, blockEnd = 0;
    for (unsigned seen = 0; seen < ring.capacity; ++seen) {
        const unsigned slot = (last + ring.capacity - seen) % ring.capacity;
        if (slot < blockFirst || slot >= blockEnd) {
            // Whole pages (eight at most) ending with this slot, not across the start of the ring.
            const uint32_t end = base + (slot + 1) * static_cast<uint32_t>(size);
            const uint32_t start = std::max<uint32_t>(base, (end - std::min<uint32_t>(end, kBlockBytes) + kPage - 1) / kPage * kPage);
            blockFirst = std::min<unsigned>(slot, (start - base + static_cast<uint32_t>(size) - 1) / static_cast<uint32_t>(size));
            blockEnd = slot + 1;
            const unsigned n = blockEnd - blockFirst;
            if (!m_proto->readFlashBytes("Read Archive Headers", base + blockFirst * size, n * size, block))
                throw CDisconnectException("archive transfer broken");
        }
        const uint8_t* p = block.data() + (slot - blockFirst) * size;
        time_t t = 0;
        if (!(journal ? journalTime(p, t) : headerTime(ring, p, t)))
            break;  // never written: the ring has not gone round yet
        // Interval records are one a period; a journal may hold several a minute.
        if (seen > 0 && (t > newer || (!journal && t == newer)))
            break;  // an older lap of the ring
        newer = t;
        if (seen == 0)
            newest = std::min(t, to);
        if (t < from)
            break;
        if (t <= to)
            slots.push_back({slot, t, journal ? std::vector<uint8_t>(p, p + size) : std::vector<uint8_t>()});
    }
    std::reverse(slots.begin(), slots.end());
    return newest;
}

ArchiveRecord CmtdSPG741::makeRecord(const Ring& ring, const uint8_t* p, time_t t) const {
    ArchiveRecord rec;
    rec.sys = std::atoi(m_sys.c_str()) > 0 ? std::atoi(m_sys.c_str()) : 1;
    rec.timestamp = t;
    rec.fields.emplace_back("DateTime", deviceTimeText(t));
    if (ring.headersAddress == 0) {
        rec.fields.emplace_back("NS", std::to_string(p[6]));
        rec.fields.emplace_back("state", p[7] & 0x01 ? "on" : "off");
        return rec;
    }
    char text[32];
    for (const auto& f : kIntervalFields) {
        if (f.type == Type::Bits16) {
            std::snprintf(text, sizeof text, "0x%04X", le(p + f.offset, 2));
            rec.fields.emplace_back(f.name, text);
            continue;
        }
        double v = valueOf(f.type, p + f.offset), factor = 1;
        if (f.unitParam >= 0 && !sensorPressureFactor(f.unitParam, factor))
            v = NAN;
        rec.fields.emplace_back(f.name, std::isfinite(v) ? formatNumber(v * factor) : std::string());
    }
    return rec;
}

bool CmtdSPG741::emit(CArchiveSink& sink, ArchiveRecord rec) {
    const time_t t = rec.timestamp;
    CArchiveSink::Verdict v = sink.add(rec);
    if (v == CArchiveSink::Gap) {
        // The headers are the meter's own list: an interval it did not record
        // (switched off) has no slot, so the gap is the meter's.
        MTD_DLOG(Info, "CmtdSPG741::get_arch_values() - the meter has no records from %lld to %lld",
                static_cast<long long>(sink.lastTime()), static_cast<long long>(t));
        sink.resync();
        v = sink.add(std::move(rec));
    }
    return v != CArchiveSink::Stop;
}

bool CmtdSPG741::readRecords(const Ring& ring, const std::vector<Slot>& slots, CArchiveSink& sink) {
    std::vector<uint8_t> block;
    for (size_t i = 0; i < slots.size();) {
        // A run of consecutive slots within eight pages from the page of the first.
        const uint32_t start = ring.recordsAddress + slots[i].index * ring.recordSize;
        const size_t perBlock = std::max<size_t>(1, (start / kPage * kPage + kBlockBytes - start) / ring.recordSize);
        size_t n = 1;
        while (i + n < slots.size() && n < perBlock && slots[i + n].index == slots[i].index + n)
            ++n;
        if (!m_proto->readFlashBytes("Read Archive Records", start, n * ring.recordSize, block))
            throw CDisconnectException("archive transfer broken");
        for (size_t k = 0; k < n; ++k)
            if (!emit(sink, makeRecord(ring, block.data() + k * ring.recordSize, slots[i + k].time)))
                return false;
        if (!sink.endBlock())
            return false;
        i += n;
    }
    return true;
}

bool CmtdSPG741::hasArchive(int archType) const { return findRing(archType) != nullptr; }

void CmtdSPG741::get_arch_values(CArchiveSink& sink) {
    const int archType = sink.type();
    const Ring* ring = findRing(archType);
    const time_t from = sink.from(), to = sink.to();
    if (!m_proto || !ring)
        return;
    if (!readSettings())
        throw CDisconnectException("settings");
    if (archType == ARCH_DAILY && m_rateHour < 0) {
        MTD_DLOG(Err, "CmtdSPG741::get_arch_values() - NO RATE HOUR, DAILY RECORDS NOT READ !!!");
        return;
    }
    if (archType == ARCH_HOURLY)
        sink.setInterval(3600);
    else if (archType == ARCH_DAILY)
        sink.setInterval(86400);
    unsigned last = 0;
    if (!readLastSlot(*ring, last))
        return;
    std::vector<Slot> slots;
    const time_t newest = slotsInWindow(*ring, last, from, to, slots);
    if (ring->headersAddress == 0) {
        // A journal's walk has read its records already.
        for (const Slot& s : slots)
            if (!emit(sink, makeRecord(*ring, s.record.data(), s.time)))
                break;
        sink.endBlock();
    } else {
        readRecords(*ring, slots, sink);
    }
    // Everything the meter holds up to this time is handed over.
    MTD_DLOG(Info, "CmtdSPG741::get_arch_values() - %s ring read up to %lld", ring->name,
            static_cast<long long>(newest ? newest : from));
}

time_t CmtdSPG741::sync_time(time_t storedTimestamp) {
    return storedTimestamp + 604800;
}

void CmtdSPG741::writeGasPasport() {
    refusePassport("SPG741", m_ident[2]);
}
