// SPDX-License-Identifier: Apache-2.0
#include "drivers/logika/CmtdSPG741.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "transport/CConnector.h"

// One archive ring in flash and where RAM keeps its newest slot.
struct CmtdSPG741::Ring {
    int archType;
    const char* name;
    uint16_t firstPage;
    unsigned slots;
    size_t recordSize;
    time_t period;  // 0: records come when something happens
    uint16_t newestSlotAddress;
    const std::vector<const char*>* fields;
};

namespace {

constexpr uint8_t kVersionMajor = 0x01, kVersionMinor = 0x00;
constexpr uint8_t kIdent[2] = {0x47, 0x29};

constexpr uint16_t kRamClock = 0x0000;
constexpr uint16_t kRamFaults = 0x0008;
constexpr uint16_t kRamCurrent = 0x0010;
constexpr uint16_t kRamTotals = 0x0030;
constexpr uint16_t kRamNewest = 0x0050;
constexpr size_t kRamValuesEnd = 0x0058;
constexpr uint16_t kSystemPage = 0x0000;

const std::vector<const char*> kIntervalFields = {"DateTime", "Vstd1", "Vw1", "P1", "T1", "Vstd2", "Vw2", "NS"};
const std::vector<const char*> kJournalFields = {"DateTime", "NS", "state"};

const CmtdSPG741::Ring kRings[] = {
    {ARCH_HOURLY, "Hourly", 0x0010, 1080, 32, 3600, kRamNewest, &kIntervalFields},
    {ARCH_DAILY, "Daily", 0x0240, 366, 32, 86400, kRamNewest + 2, &kIntervalFields},
    {ARCH_JOURNAL_EVENT, "Journal", 0x0300, 128, 8, 0, kRamNewest + 4, &kJournalFields},
};

// The current values: offset in the RAM block read from 0, the published
// name and the unit; pressures are converted to kgf/cm2.
enum class Enc { Float, Total };
struct CurrentValue {
    size_t offset;
    Enc enc;
    const char* name;
    uint32_t unit;
    bool pressure;
};
const CurrentValue kCurrent[] = {
    {kRamTotals + 0, Enc::Total, "Vstd1", DU_M3, false},   {kRamTotals + 8, Enc::Total, "Vw1", DU_M3, false},
    {kRamTotals + 16, Enc::Total, "Vstd2", DU_M3, false}, {kRamTotals + 24, Enc::Total, "Vw2", DU_M3, false},
    {kRamCurrent + 0, Enc::Float, "P1", DU_KGF_CM2, true}, {kRamCurrent + 4, Enc::Float, "T1", DU_GRAD, false},
    {kRamCurrent + 8, Enc::Float, "Qw1", DU_M3_H, false},  {kRamCurrent + 12, Enc::Float, "Qstd1", DU_M3_H, false},
    {kRamCurrent + 16, Enc::Float, "P2", DU_KGF_CM2, true}, {kRamCurrent + 20, Enc::Float, "T2", DU_GRAD, false},
    {kRamCurrent + 24, Enc::Float, "Qw2", DU_M3_H, false}, {kRamCurrent + 28, Enc::Float, "Qstd2", DU_M3_H, false},
};

uint32_t le(const uint8_t* p, size_t n) {
    uint32_t v = 0;
    for (size_t i = n; i-- > 0;)
        v = v << 8 | p[i];
    return v;
}

// Microchip 32-bit float as the meter keeps it, low byte first: m0 m1 (s|m2) e.
// The same fields as IEEE single precision with the sign moved below the exponent.
double microchipFloat(const uint8_t* p) {
    if (p[3] == 0)
        return 0.0;
    uint32_t bits = static_cast<uint32_t>(p[2] & 0x80) << 24 | static_cast<uint32_t>(p[3]) << 23 |
                    static_cast<uint32_t>(p[2] & 0x7F) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[0];
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

const CmtdSPG741::Ring* findRing(int archType) {
    for (const auto& r : kRings)
        if (r.archType == archType)
            return &r;
    return nullptr;
}

}  // namespace

CmtdSPG741::CmtdSPG741() = default;

CmtdSPG741::~CmtdSPG741() {
    StopPolling();
}

std::unique_ptr<CMtdBaseDriver> CmtdSPG741::create(int) {
    return std::make_unique<CmtdSPG741>();
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
    if (!m_proto)
        throw CDisconnectException("no connector");
    if (!m_proto->startSession(m_ident)) {
        // A hung-up line stays dead on the old descriptor: reopen it next cycle.
        m_connector->close_device();
        throw CDisconnectException("no answer to the session start");
    }
    MTD_DLOG(Info, "CmtdSPG741::init() - identifier 0x%02X%02X, firmware version 0x%02X",
            m_ident[0], m_ident[1], m_ident[2]);
    if (m_ident[0] != kIdent[0] || m_ident[1] != kIdent[1]) {
        MTD_DLOG(Err, "CmtdSPG741::init() - DEVICE 0x%02X%02X IS NOT AN SPG741 !!!", m_ident[0],
                m_ident[1]);
        throw CWrongPacketException("not an SPG741");
    }
    return true;
}

void CmtdSPG741::cycle_end() {
    // The dialect has no closing frame; the meter ends the session after a
    // minute of silence. The next cycle starts a new one.
    m_haveSystem = false;
    MTD_DLOG(Info, "CmtdSPG741::cycle_end() - session left");
}

bool CmtdSPG741::readSystemBlock() {
    std::vector<uint8_t> page;
    if (!m_proto || !m_proto->readFlash("Read System Block", kSystemPage, 1, page))
        return false;
    m_serial = le(page.data(), 3);
    m_rateHour = page[4];
    m_rateDay = page[5];
    m_pressureUnit = page[6];
    m_haveSystem = true;
    return true;
}

bool CmtdSPG741::deviceToUnix(const uint8_t* p, time_t& t) const {
    const int y = p[0], mo = p[1], d = p[2], h = p[3], mi = p[4], s = p[5];
    if (y > 99 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59)
        return false;
    t = fromDeviceTime(2000 + y, mo, d, h, mi, s);
    return true;
}

bool CmtdSPG741::readClock(time_t& t, std::string& text) {
    std::vector<uint8_t> clock;
    if (!m_proto || !m_proto->readRam("Read Date & Time", kRamClock, 6, clock))
        return false;
    if (!deviceToUnix(clock.data(), t)) {
        MTD_DLOG(Err, "CmtdSPG741::readClock() - CAN'T PARSE %02X %02X %02X %02X %02X %02X", clock[0], clock[1], clock[2], clock[3], clock[4], clock[5]);
        return false;
    }
    text = deviceTimeText(t);
    return true;
}

bool CmtdSPG741::GetTimestamps(time_t& deviceTime, int& rateHour) {
    std::string text;
    if (!readClock(deviceTime, text))
        noDeviceTime("GetTimestamps", "CAN'T GET CURRENT DATETIME, EXCEPTION IS THROWN !!!");
    if (!m_haveSystem)
        readSystemBlock();
    rateHour = m_rateHour < 0 || m_rateHour > 23 ? 0 : m_rateHour;
    return true;
}

std::vector<CValueRecord> CmtdSPG741::get_all_system_values() {
    MTD_DLOG(Info, "--- CmtdSPG741::get_all_system_values() ----------------------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    std::string text;
    readClock(now, text);
    auto add = [&](const char* name, const std::string& value) {
        MTD_DLOG(Info, "CmtdSPG741::get_all_system_values() - %s = %s", name, value.c_str());
        out.push_back(makeValue(name, value, DU_UNKNOWN, now, m_sys));
    };
    if (!readSystemBlock()) {
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
    if (m_rateHour <= 23)
        add("RateHour", std::to_string(m_rateHour));
    else
        MTD_DLOG(Err, "CmtdSPG741::get_all_system_values() - WRONG RATE HOUR %d !!!", m_rateHour);
    if (m_rateDay >= 1 && m_rateDay <= 28)
        add("RateDay", std::to_string(m_rateDay));
    else
        MTD_DLOG(Err, "CmtdSPG741::get_all_system_values() - WRONG RATE DAY %d !!!", m_rateDay);
    add("ArchivePeriod", "60");
    return out;
}

bool CmtdSPG741::pressureFactorOfDevice(double& factor) {
    if (!m_haveSystem)
        readSystemBlock();
    return m4PressureFactor(m_pressureUnit, "pressureFactorOfDevice", factor);
}

std::vector<CValueRecord> CmtdSPG741::get_all_curtime_cur_integ_values() {
    MTD_DLOG(Info, "--- CmtdSPG741::get_all_curtime_cur_integ_values() -----------------");
    // The clock, the flags, the values and the totals in two reads.
    std::vector<uint8_t> ram, tail;
    if (!m_proto || !m_proto->readRam("Read Current Values", 0, CM4MemoryConnector::kMaxRamBytes, ram) ||
        !m_proto->readRam("Read Totals", CM4MemoryConnector::kMaxRamBytes,
                          kRamValuesEnd - CM4MemoryConnector::kMaxRamBytes, tail))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    ram.insert(ram.end(), tail.begin(), tail.end());
    time_t now = 0;
    if (!deviceToUnix(ram.data() + kRamClock, now))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    std::vector<CValueRecord> out;
    auto add = [&](const char* name, const std::string& value, uint32_t unit) {
        out.push_back(makeValue(name, value, unit, now, m_sys));
    };
    add("DateTime", deviceTimeText(now), DU_UNKNOWN);
    char text[32];
    double pf = 0;
    const bool havePressure = pressureFactorOfDevice(pf);
    for (const auto& v : kCurrent) {
        const uint8_t* p = ram.data() + v.offset;
        double value = v.enc == Enc::Total ? static_cast<double>(le(p, 4)) + microchipFloat(p + 4) : microchipFloat(p);
        if (!std::isfinite(value)) {
            MTD_DLOG(Warning, "CmtdSPG741::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", v.name);
            continue;
        }
        if (v.pressure) {
            if (!havePressure)
                continue;
            value *= pf;
        }
        add(v.name, formatNumber(value), v.unit);
    }
    std::snprintf(text, sizeof text, "0x%08X", le(ram.data() + kRamFaults, 4));
    add("NS", text, DU_UNKNOWN);
    return out;
}

bool CmtdSPG741::readNewestSlot(const Ring& ring, unsigned& slot) {
    std::vector<uint8_t> index;
    if (!m_proto->readRam("Read Archive Index", ring.newestSlotAddress, 2, index))
        throw CDisconnectException("archive index");
    slot = le(index.data(), 2);
    if (slot == 0xFFFF) {
        MTD_DLOG(Info, "CmtdSPG741::get_arch_values() - %s archive is empty",
                ring.name);
        return false;
    }
    if (slot >= ring.slots) {
        MTD_DLOG(Err, "CmtdSPG741::get_arch_values() - WRONG %s INDEX %u OF %u !!!",
                ring.name, slot, ring.slots);
        return false;
    }
    return true;
}

bool CmtdSPG741::parseRecord(const Ring& ring, const uint8_t* p, const double* pf, time_t& ts, ArchiveRecord& rec) {
    if (!deviceToUnix(p, ts))
        return false;  // erased or never written
    rec = ArchiveRecord();
    rec.sys = std::atoi(m_sys.c_str()) > 0 ? std::atoi(m_sys.c_str()) : 1;
    rec.timestamp = ts;
    rec.fields.emplace_back("DateTime", deviceTimeText(ts));
    char text[32];
    if (ring.period == 0) {
        rec.fields.emplace_back("NS", std::to_string(p[6]));
        rec.fields.emplace_back("state", p[7] ? "on" : "off");
        return true;
    }
    for (size_t i = 1; i + 1 < ring.fields->size(); ++i) {
        double v = microchipFloat(p + 6 + 4 * (i - 1));
        if (std::strcmp((*ring.fields)[i], "P1") == 0)
            v = pf ? v * *pf : NAN;
        rec.fields.emplace_back((*ring.fields)[i], std::isfinite(v) ? formatNumber(v) : std::string());
    }
    std::snprintf(text, sizeof text, "0x%04X", le(p + 30, 2));
    rec.fields.emplace_back("NS", text);
    return true;
}

time_t CmtdSPG741::readRing(const Ring& ring, unsigned first, unsigned count, time_t from, time_t to,
                            CArchiveSink& sink) {
    const unsigned perPage = static_cast<unsigned>(CM4MemoryConnector::kPageSize / ring.recordSize);
    double factor = 0;
    const double* pf = ring.period != 0 && pressureFactorOfDevice(factor) ? &factor : nullptr;
    time_t last = 0;
    std::vector<uint8_t> pages;
    for (unsigned done = 0; done < count;) {
        const unsigned slot = (first + done) % ring.slots;
        // Whole pages, never past the end of the ring nor past the last slot wanted.
        const unsigned page = slot / perPage;
        const unsigned pagesLeftInRing = (ring.slots + perPage - 1) / perPage - page;
        const unsigned slotsWanted = count - done + slot % perPage;
        unsigned n = (slotsWanted + perPage - 1) / perPage;
        n = std::min({n, pagesLeftInRing, static_cast<unsigned>(CM4MemoryConnector::kMaxPages)});
        if (!m_proto->readFlash("Read Archive Pages", static_cast<uint16_t>(ring.firstPage + page), n, pages))
            throw CDisconnectException("archive transfer broken");
        for (unsigned s = slot; s < (page + n) * perPage && done < count; ++s, ++done) {
            time_t ts = 0;
            ArchiveRecord rec;
            if (s >= ring.slots || !parseRecord(ring, pages.data() + (s - page * perPage) * ring.recordSize, pf, ts, rec))
                continue;
            // A record older than the one before it is from an earlier lap of the ring.
            if (ts < last || (ring.period != 0 && ts == last))
                continue;
            last = ts;
            if (ts >= from && ts <= to)
                sink.add(std::move(rec));
        }
        if (!sink.endBlock())
            break;
    }
    return last;
}

bool CmtdSPG741::hasArchive(int archType) const { return findRing(archType) != nullptr; }

void CmtdSPG741::get_arch_values(CArchiveSink& sink) {
    const Ring* ring = findRing(sink.type());
    const time_t from = sink.from();
    const time_t to = sink.to();
    if (!m_proto)
        return;
    unsigned newest = 0;
    if (!readNewestSlot(*ring, newest))
        return;
    unsigned back = ring->slots - 1;  // a journal is read whole
    if (ring->period != 0) {
        std::vector<uint8_t> page;
        const unsigned perPage = static_cast<unsigned>(CM4MemoryConnector::kPageSize / ring->recordSize);
        if (!m_proto->readFlash("Read Newest Record", static_cast<uint16_t>(ring->firstPage + newest / perPage), 1,
                                page))
            throw CDisconnectException("archive transfer broken");
        time_t newestTime = 0;
        ArchiveRecord rec;
        if (!parseRecord(*ring, page.data() + (newest % perPage) * ring->recordSize, nullptr, newestTime, rec)) {
            MTD_DLOG(Err, "CmtdSPG741::get_arch_values() - NEWEST %s RECORD %u IS EMPTY !!!",
                    ring->name, newest);
            return;
        }
        if (newestTime < from) {
            MTD_DLOG(Info, "CmtdSPG741::get_arch_values() - %s ring read up to %d", ring->name,
                    static_cast<int>(newestTime));
            return;
        }
        // Slots hold one period each; with a gap (meter off) this reaches
        // further back, and the older records are skipped by time.
        const time_t periods = (newestTime - from + ring->period - 1) / ring->period;
        back = static_cast<unsigned>(std::min<time_t>(periods, ring->slots - 1));
    }
    const unsigned first = (newest + ring->slots - back) % ring->slots;
    const time_t last = readRing(*ring, first, back + 1, from, to, sink);
    MTD_DLOG(Info, "CmtdSPG741::get_arch_values() - %s ring read up to %d", ring->name,
            static_cast<int>(last));
}

time_t CmtdSPG741::sync_time(time_t storedTimestamp) {
    return storedTimestamp + 604800;
}

void CmtdSPG741::writeGasPasport() {
    refusePassport("SPG741", m_ident[2]);
}
