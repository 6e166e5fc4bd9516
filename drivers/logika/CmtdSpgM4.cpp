// SPDX-License-Identifier: Apache-2.0
// SPG742 gas volume corrector (Logika, M4 generation) over the M4 protocol.
//
// The exchange (frames in protocols/M4.h):
//   session start   10 NT 3F 00 00 00 00 CS 16     -> 10 NT 3F I1 I2 VV CS ..
//                   I1 I2 is the meter's identification word, 0x472A for SPG742,
//                   VV its version.
//   parameter read  10 NT 90 ID 00 06 00 72 4A 03 CH NL NH CRC
//                   -> 10 NT 90 ID 00 LL LH 72 <element> CRC, e.g. the serial
//                   number: 72 41 04 <u32 little-endian>
//   archive read    10 NT 90 ID 00 18 00 61 04 05 FF FF CH AR NN 49 06 <from> 49 06 <to> CRC
//                   FF FF the current partition, CH the channel, AR the archive
//                   code (0 hourly, 1 daily, 6 abnormal-situation journal), NN the
//                   most records wanted. The reply is 61 followed by, per record,
//                     49 LL <interval mark> 30 LL <time 47> <date 48> <values...>
//                   for the interval archives, or
//                     49 LL <date-time> <one element: the event>
//                   for the journals, and at the end
//                     49 LL <next-record pointer> 30 00
//                   (an empty container). The next request starts AT that
//                   pointer, never at "last record + 1 s": the maker's library
//                   warns that an SPG742 asked for a nudged time restarts. An
//                   empty pointer (49 00) or one past the window ends the read.
//                   A record without its own time and date has the mark as its
//                   time, plus the contract hour for a daily record.
// A reply 21 EC is the meter refusing a request (EC error code); it is not
// repeated. The cycle ends with the session close 10 NT 71 00 00 00 00 CS 16
// ([LP] internal_close_comm_session); its answer is not judged, since the
// meter ends a session itself a minute after the last request anyway.
//
// Timing: a second after a request is the longest the meter takes to start
// its answer, not a pause it needs; the driver reads the answer as it comes
// (up to the port's time-out) instead of pausing a second before each read.
//
// Channels: 0 the common channel (ОБЩ), 1 and 2 the two pipes (ТР1, ТР2).
// Archives and journals exist per channel of the archive's channel range;
// journal events of channel n > 0 are written "n-<event>".
// The meter's clock is local time of its own zone (pu_TZ).
//
// Sources (public Logika meter libraries, read for the device facts only):
//  [LP] github.com/Vadsxd/LogikaPython: Logika/Meters/__4M/SPG742.py,
//       __4M/Logika4M.py (element decoding: 0x41 of 1, 2 or 4 bytes, 0x49 cut
//       after any field), Logika/Meters/Logika4.py (pressure unit codes),
//       Logika/Protocols/M4/M4Protocol.py (archive request and reply layout,
//       next-record pointer, per-channel reading, mark + contract hour),
//       M4ArchiveId.py (archive codes), the 24-bit serial mask of 0.8256.
//  [CS] the maker's C# library (Logika.Meters TSPG742, Logika.Comms.Protocols.M4
//       M4Protocol readArchiveM4 / parseArchivePacket).
// Each row of the tables below names its source or says "assumed": the
// parameter tables of those libraries are not public, so the numbers marked
// assumed were never checked against a meter (docs/logika.md lists them).

#include "drivers/logika/CmtdSpgM4.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "transport/CConnector.h"

struct CmtdSpgM4::SParam {
    const char* name;     // request name in the logs
    uint8_t channel;
    uint16_t number;
    const char* publish;  // value name; nullptr: not published as a current value
    uint32_t unit;        // DataUnit of the published value
    const SParam* pressureUnit;  // the unit setting of a pressure, published in kgf/cm2
};

struct CmtdSpgM4::SArchive {
    int archType;
    const char* kind;      // for the logs
    uint8_t code;          // M4 archive code
    uint8_t firstChannel;  // the archive's channel range
    uint8_t channels;
    uint8_t perRequest;    // records asked for in one request
    time_t period;         // seconds between records; 0 for a journal
    bool contractHour;     // a record's time is its mark plus the contract hour
    std::vector<const char*> fields;  // names of the values after time and date
};

namespace {

constexpr uint16_t kIdentSpg742 = 0x472A;   // [LP] SPG742.py, [CS] TSPG742.IdentWord
constexpr uint32_t kSerialMask = 0x00FFFFFF;  // [LP] M4Protocol.read_tags_m4

using S = CmtdSpgM4::SParam;

// System parameters, common channel.
const S kSerial{"Read Serial Number", 0, 8256, nullptr, DU_UNKNOWN, nullptr};      // [LP] SPG742.py
const S kFirmware{"Read Firmware", 0, 8224, nullptr, DU_UNKNOWN, nullptr};         // [LP] "info"; meaning assumed
const S kContractDay{"Read Contract Day", 0, 24, nullptr, DU_UNKNOWN, nullptr};    // ОБЩ.СР; number assumed
const S kRateHour{"Read Rate Hour", 0, 25, nullptr, DU_UNKNOWN, nullptr};          // ОБЩ.ЧР; number assumed
const S kTime{"Read Time", 0, 1024, nullptr, DU_UNKNOWN, nullptr};                 // [LP] ADS block "1024"
const S kDate{"Read Date", 0, 1025, nullptr, DU_UNKNOWN, nullptr};                 // [LP] ADS block "1025"
// Unit settings ОБЩ.[P1] and ОБЩ.[P2]: one code per measured pressure ([CS]
// TSPG742.BuildEUDict); database parameters of the common channel, numbers assumed.
const S kUnitP1{"Read Unit P1", 0, 40, nullptr, DU_UNKNOWN, nullptr};
const S kUnitP2{"Read Unit P2", 0, 42, nullptr, DU_UNKNOWN, nullptr};

// Current values and totalisers, in publishing order.
const S kCurrent[] = {
    {"Read Std. Volume", 0, 2048, "Vstd", DU_M3, nullptr},               // [LP] "0.2048"
    {"Read Operating Time", 0, 2050, "OperatingTime", DU_HOUR, nullptr},  // [LP] "0.2050"
    {"Read Work Volume 1", 1, 2048, "Vw1", DU_M3, nullptr},              // [LP] "1.2048"
    {"Read Std. Volume 1", 1, 2049, "Vstd1", DU_M3, nullptr},            // [LP] "1.2049"
    {"Read Pressure 1", 1, 1024, "P1", DU_KGF_CM2, &kUnitP1},            // assumed number
    {"Read Temperature 1", 1, 1026, "T1", DU_GRAD, nullptr},             // assumed number
    {"Read Work Flow 1", 1, 1027, "Qw1", DU_M3_H, nullptr},              // assumed number
    {"Read Std. Flow 1", 1, 1028, "Qstd1", DU_M3_H, nullptr},            // assumed number
    {"Read Correction 1", 1, 1031, "K1", DU_UNKNOWN, nullptr},           // assumed number
    {"Read Work Volume 2", 2, 2048, "Vw2", DU_M3, nullptr},              // [LP] "2.2048"
    {"Read Std. Volume 2", 2, 2049, "Vstd2", DU_M3, nullptr},            // [LP] "2.2049"
    {"Read Pressure 2", 2, 1024, "P2", DU_KGF_CM2, &kUnitP2},            // assumed number
    {"Read Temperature 2", 2, 1026, "T2", DU_GRAD, nullptr},             // assumed number
    {"Read Work Flow 2", 2, 1027, "Qw2", DU_M3_H, nullptr},              // assumed number
    {"Read Std. Flow 2", 2, 1028, "Qstd2", DU_M3_H, nullptr},            // assumed number
    {"Read Correction 2", 2, 1031, "K2", DU_UNKNOWN, nullptr},           // assumed number
};

// Archives: codes from [LP] M4ArchiveId.py; the channel ranges and the value
// lists are assumed (the libraries' archive tables are not public). Values past
// the list are named "field<N>".
const CmtdSpgM4::SArchive kArchives[] = {
    {ARCH_HOURLY, "Hourly", 0, 0, 1, 32, 3600, false, {"V", "V.sum", "Vw.sum", "P1", "t1", "ti", "NS"}},
    {ARCH_DAILY, "Daily", 1, 0, 1, 32, 86400, true, {"V", "V.sum", "Vw.sum", "P1", "t1", "ti", "NS"}},
    {ARCH_JOURNAL_EVENT, "Events", 6, 0, 3, 32, 0, false, {"ns"}},
};

LogikaRequest paramRequest(const S& p) {
    LogikaRequest r;
    r.name = p.name;
    r.function = M4::kFnReadParam;
    r.channel = p.channel;
    r.param = p.number;
    return r;
}

// 64 bits, so that a 32-bit controller reads (and logs) the same number as any other.
long long integerOf(const M4::ParamValue& v) {
    return v.kind == M4::ParamValue::Integer ? static_cast<long long>(v.integer) : std::strtoll(v.text.c_str(), nullptr, 10);
}

}  // namespace

CmtdSpgM4::CmtdSpgM4(int model) : m_model(model) {}

CmtdSpgM4::~CmtdSpgM4() {
    StopPolling();
}

void CmtdSpgM4::SaveConnector(CConnector* connector) {
    m_connector = connector;
    if (!connector)
        return;
    const int nt = std::atoi(m_config.get("address").c_str());
    M4::Timing timing;
    timing.afterSend = std::chrono::milliseconds(0);  // the reply is awaited by the read itself
    // The pauses between attempts (1 s) and after a wake-up (10 s) end at a
    // stop: a stop on a silent line would otherwise wait them all out.
    m_proto = std::make_unique<M4::CM4>(*connector, static_cast<uint8_t>(nt & 0xFF), logId(), driverName(), timing,
                                        [this](std::chrono::milliseconds d) { sleepFor(d); });
}

bool CmtdSpgM4::init() {
    MTD_DLOG(Info, "--- CmtdSpgM4::init() -----------------------------------------------");
    MTD_DLOG(Info, "SPG742 driver version %02X.%02X, compiled: %s %s", 1, 0, __DATE__, __TIME__);
    const std::string systems = m_config.get("systems");
    takeSystem();
    MTD_DLOG(Info, "CmtdSpgM4::init() - serial '%s', address '%s', systems %s, pu_TZ = %d",
            m_config.serial_text.c_str(), m_config.get("address").c_str(), systems.c_str(), deviceTzHours());
    if (m_model != SPG742) {
        MTD_DLOG(Err, "CmtdSpgM4::init() - UNKNOWN MODEL %d", m_model);
        return false;
    }
    if (!m_proto)
        throw CDisconnectException("no connector");
    LogikaRequest start;
    start.name = "Start Session";
    start.function = M4::kFnSessionStart;
    if (!m_proto->SendRequest(start)) {
        // A hung-up line stays dead on the old descriptor: reopen it next cycle.
        m_connector->close_device();
        throw CDisconnectException("no answer to the session start");
    }
    m_ident = static_cast<uint16_t>(m_proto->reply()[3] << 8 | m_proto->reply()[4]);
    if (m_ident != kIdentSpg742)
        MTD_DLOG(Warning, "CmtdSpgM4::init() - IDENTIFICATION 0x%04X IS NOT SPG742 (0x%04X) !!!",
                m_ident, kIdentSpg742);
    m_session = true;
    return true;
}

void CmtdSpgM4::session_close() {
    if (!m_session || !m_proto)
        return;
    LogikaRequest close;
    close.name = "Close Session";
    close.function = M4::kFnSessionClose;
    m_proto->SendRequest(close);
}

void CmtdSpgM4::cycle_end() {
    if (!m_session)
        return;
    m_session = false;
    MTD_DLOG(Info, "CmtdSpgM4::cycle_end() - session left, closed with 0x71");
}

bool CmtdSpgM4::readParam(const SParam& p, M4::ParamValue& value) {
    if (!m_proto->SendRequest(paramRequest(p)) || m_proto->isError())
        return false;
    // Body: 72, then the parameter's element.
    if (m_proto->bodyLength() < 3 || m_proto->body()[0] != M4::kFnReadParam ||
        !m_proto->GetParamValue(m_proto->body() + 1, m_proto->bodyLength() - 1, value) || value.tag == 0x05) {
        MTD_DLOG(Err, "CmtdSpgM4::readParam() - NO VALUE IN REPLY TO '%s' !!!",
                p.name);
        return false;
    }
    return true;
}

bool CmtdSpgM4::deviceTime(time_t& t, std::string& text) {
    M4::ParamValue tv, dv;
    if (!readParam(kTime, tv) || !tv.hasTime || !readParam(kDate, dv) || !dv.hasDate)
        return false;
    if (dv.month < 1 || dv.month > 12 || dv.day < 1 || dv.day > 31 || tv.hour > 23 || tv.minute > 59 ||
        tv.second > 59) {
        MTD_DLOG(Err, "CmtdSpgM4::deviceTime() - CAN'T PARSE '%s %s'",
                dv.text.c_str(), tv.text.c_str());
        return false;
    }
    t = fromDeviceTime(dv.year, dv.month, dv.day, tv.hour, tv.minute, tv.second);
    text = dv.text + " " + tv.text;
    return true;
}

bool CmtdSpgM4::GetTimestamps(time_t& deviceTimeOut, int& rateHour) {
    std::string text;
    if (!deviceTime(deviceTimeOut, text))
        noDeviceTime("GetTimestamps", "CAN'T GET CURRENT DATETIME, EXCEPTION IS THROWN !!!");
    rateHour = m_rateHour < 0 ? 0 : m_rateHour;
    return true;
}

std::vector<CValueRecord> CmtdSpgM4::get_all_system_values() {
    MTD_DLOG(Info, "--- CmtdSpgM4::get_all_system_values() ---------------------------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    std::string nowText;
    deviceTime(now, nowText);
    auto add = [&](const char* name, const std::string& value) {
        MTD_DLOG(Info, "CmtdSpgM4::get_all_system_values() - %s = '%s'", name, value.c_str());
        out.push_back(makeValue(name, value, DU_UNKNOWN, now, m_sys));
    };
    M4::ParamValue v;
    if (!readParam(kSerial, v) || v.kind != M4::ParamValue::Integer) {
        MTD_DLOG(Err, "CmtdSpgM4::get_all_system_values() - CAN'T READ SERIAL NUMBER !!!");
    } else {
        const std::string serial = std::to_string(v.integer & kSerialMask);
        checkSerial(serial);
        add("SerialNumber", serial);
    }
    char ident[16];
    std::snprintf(ident, sizeof ident, "0x%04X", m_ident);
    add("MeterModel", m_ident == kIdentSpg742 ? "SPG742" : ident);
    add("Identification", ident);

    struct Row {
        const S& param;
        const char* name;
    };
    const Row rows[] = {{kFirmware, "Firmware"},
                        {kRateHour, "RateHour"},
                        {kContractDay, "ContractDay"},
                        {kUnitP1, "PressureUnitP1"},
                        {kUnitP2, "PressureUnitP2"}};
    for (const auto& row : rows) {
        if (!readParam(row.param, v)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!", row.param.name);
            continue;
        }
        if (&row.param == &kRateHour) {
            const long long h = integerOf(v);
            if (h < 0 || h > 23) {
                MTD_DLOG(Err, "CmtdSpgM4::get_all_system_values() - WRONG RATE HOUR %lld !!!", h);
                continue;
            }
            m_rateHour = static_cast<int>(h);
        }
        if (&row.param == &kUnitP1 || &row.param == &kUnitP2)
            m_pressureUnits[row.param.number] = static_cast<int>(integerOf(v));
        add(row.name, v.text);
    }
    // The interval archives have a fixed layout: one record an hour, one a contract day.
    add("ArchivePeriod", "60");
    return out;
}

bool CmtdSpgM4::toKgfCm2(const SParam& unit, double value, double& out) {
    auto known = m_pressureUnits.find(unit.number);
    if (known == m_pressureUnits.end()) {
        M4::ParamValue u;
        if (!readParam(unit, u))
            return false;
        known = m_pressureUnits.emplace(unit.number, static_cast<int>(integerOf(u))).first;
    }
    double factor = 0;
    if (!m4PressureFactor(known->second, "toKgfCm2", factor))
        return false;
    out = value * factor;
    return true;
}

std::vector<CValueRecord> CmtdSpgM4::get_all_curtime_cur_integ_values() {
    MTD_DLOG(Info, "--- CmtdSpgM4::get_all_curtime_cur_integ_values() ----------------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    std::string nowText;
    if (!deviceTime(now, nowText))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    out.push_back(makeValue("DateTime", nowText, DU_UNKNOWN, now, m_sys));
    for (const auto& cur : kCurrent) {
        M4::ParamValue v;
        if (!readParam(cur, v) || v.kind != M4::ParamValue::Number) {
            MTD_DLOG(Warning, "CmtdSpgM4::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", cur.name);
            continue;
        }
        double value = v.number;
        if (cur.pressureUnit && !toKgfCm2(*cur.pressureUnit, v.number, value))
            continue;
        out.push_back(makeValue(cur.publish, formatNumber(value), cur.unit, now, m_sys));
    }
    return out;
}

// One reply: records, then the next-record pointer. False when the reply is
// not in that layout; the records before the fault are kept.
bool CmtdSpgM4::parseArchive(const SArchive& arch, uint8_t channel, std::vector<ArchiveRecord>& recs,
                             time_t& next) {
    const uint8_t* body = m_proto->body();
    const size_t size = m_proto->bodyLength();
    next = 0;
    if (size < 1 || body[0] != M4::kFnReadArchive)
        return false;
    const std::string prefix = channel > 0 ? std::to_string(channel) + "-" : "";
    for (size_t pos = 1; pos < size;) {
        M4::ParamValue mark, rec;
        const size_t at = pos;
        if (!m_proto->GetParamValue(body + pos, size - pos, mark) || mark.tag != 0x49 ||
            !m_proto->GetParamValue(body + pos + mark.size(), size - pos - mark.size(), rec)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: BAD RECORD AT %u !!!", arch.kind,
                     static_cast<unsigned>(at));
            return false;
        }
        pos += mark.size() + rec.size();
        if (rec.length == 0) {
            // The end: the mark is where the next record will be (none when empty).
            next = mark.hasDate ? fromDeviceTime(mark.year, mark.month, mark.day, mark.hour, mark.minute,
                                                 mark.second)
                                : 0;
            return pos == size;
        }
        if (!mark.hasDate) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: RECORD WITHOUT TIME AT %u !!!", arch.kind,
                     static_cast<unsigned>(at));
            return false;
        }
        ArchiveRecord r;
        r.sys = std::atoi(m_sys.c_str());
        r.timestamp = fromDeviceTime(mark.year, mark.month, mark.day, mark.hour, mark.minute, mark.second);
        if (arch.period == 0) {
            // A journal record is one element: the event.
            r.fields.emplace_back(arch.fields.at(0), prefix + rec.text);
        } else if (rec.tag != 0x30 || !parseValues(arch, body + pos - rec.length, rec.length, prefix, r)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: BAD RECORD CONTAINER AT %u !!!", arch.kind,
                     static_cast<unsigned>(at));
            return false;
        }
        recs.push_back(std::move(r));
    }
    MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: NO NEXT-RECORD POINTER IN THE REPLY !!!", arch.kind);
    return false;
}

// The elements of an interval record: its time and date when the meter gives
// them, then the values.
bool CmtdSpgM4::parseValues(const SArchive& arch, const uint8_t* data, size_t size, const std::string& prefix,
                            ArchiveRecord& rec) {
    std::vector<M4::ParamValue> values;
    for (size_t pos = 0; pos < size;) {
        M4::ParamValue v;
        if (!m_proto->GetParamValue(data + pos, size - pos, v))
            return false;
        pos += v.size();
        values.push_back(std::move(v));
    }
    size_t first = 0;
    if (values.size() >= 2 && values[0].tag == 0x47 && values[1].tag == 0x48) {
        const M4::ParamValue &t = values[0], &d = values[1];
        rec.timestamp = fromDeviceTime(d.year, d.month, d.day, t.hour, t.minute, t.second);
        first = 2;
    } else if (arch.contractHour) {
        rec.timestamp += static_cast<time_t>(m_rateHour < 0 ? 0 : m_rateHour) * 3600;
    }
    for (size_t i = first; i < values.size(); ++i) {
        const size_t n = i - first;
        const std::string name = n < arch.fields.size() ? arch.fields[n] : "field" + std::to_string(n + 1);
        rec.fields.emplace_back(prefix + name, values[i].text);
    }
    return true;
}

// Reads one channel of an archive from `start` (an interval mark) to `to`,
// request after request from the meter's next-record pointer. With `sink`,
// each reply's records go to it at once; false when the sink says stop.
bool CmtdSpgM4::readChannel(const SArchive& arch, uint8_t channel, time_t start, time_t to,
                            std::vector<ArchiveRecord>& recs, SPointer& pointer, CArchiveSink* sink) {
    while (start <= to) {
        // The M4 layer writes the window in the process's local time; hand it
        // the instant whose local fields are the meter's clock reading.
        LogikaRequest r;
        r.name = std::string("Read ") + arch.kind + " Archive";
        r.function = M4::kFnReadArchive;
        r.channel = channel;
        r.args = {arch.code, arch.perRequest, protocolTimeArg(start), protocolTimeArg(to)};
        if (!m_proto->SendRequest(r))
            throw CDisconnectException("archive request not answered");
        if (m_proto->isError()) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: METER REFUSED THE REQUEST (0x%02X) !!!",
                     arch.kind, m_proto->errorCode());
            return true;
        }
        time_t next = 0;
        const size_t before = recs.size();
        const bool whole = parseArchive(arch, channel, recs, next);
        const time_t newest = recs.size() > before ? recs.back().timestamp : 0;
        pointer.covered = std::max(pointer.covered, newest);
        if (sink && !handOver(recs, false, *sink))
            return false;
        if (!whole)
            return true;
        pointer.next = next;
        if (next == 0 || next > to)
            return true;
        // Each pointer must lie past what came; else the meter's dating loops.
        if (next <= start || (newest && (arch.period ? next <= newest : next < newest))) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: NEXT RECORD %lld DOES NOT MOVE ON FROM %lld !!!",
                     arch.kind, static_cast<long long>(next), static_cast<long long>(start));
            return true;
        }
        start = next;
    }
    return true;
}

// Every record leaves the driver here, oldest first. With `merge`, the
// channels' records of one interval (an interval archive over several
// channels) become one record. False when the sink says stop.
bool CmtdSpgM4::handOver(std::vector<ArchiveRecord>& recs, bool merge, CArchiveSink& sink) {
    std::stable_sort(recs.begin(), recs.end(),
                     [](const ArchiveRecord& a, const ArchiveRecord& b) { return a.timestamp < b.timestamp; });
    if (merge) {
        std::vector<ArchiveRecord> merged;
        for (auto& r : recs) {
            if (!merged.empty() && merged.back().timestamp == r.timestamp) {
                for (auto& f : r.fields)
                    merged.back().fields.push_back(std::move(f));
                continue;
            }
            merged.push_back(std::move(r));
        }
        recs.swap(merged);
    }
    bool go = true;
    for (auto& r : recs) {
        const long long t = r.timestamp;
        ArchiveRecord again = r;
        CArchiveSink::Verdict v = sink.add(std::move(r));
        if (v == CArchiveSink::Gap) {
            // The meter's pointer led here: the missing records are its own
            // (a power cut), not ours to read again.
            MTD_DLOG(Warning, "CmtdSpgM4::get_arch_values() - NO RECORDS BEFORE %lld IN THE METER, READ PAST", t);
            sink.resync();
            v = sink.add(std::move(again));
        }
        if (v == CArchiveSink::Stop) {
            go = false;
            break;
        }
    }
    recs.clear();
    return go && sink.endBlock();
}

const CmtdSpgM4::SArchive* CmtdSpgM4::findArchive(int archType) {
    for (const auto& a : kArchives)
        if (a.archType == archType)
            return &a;
    return nullptr;
}

bool CmtdSpgM4::hasArchive(int archType) const { return findArchive(archType) != nullptr; }

void CmtdSpgM4::get_arch_values(CArchiveSink& sink) {
    const SArchive* arch = findArchive(sink.type());
    const time_t from = sink.from();
    const time_t to = sink.to();
    MTD_DLOG(Info, "CmtdSpgM4::get_arch_values() - %s from %lld to %lld", arch->kind,
            static_cast<long long>(from), static_cast<long long>(to));
    sink.setInterval(arch->period);
    // The window as interval marks: a daily record is marked at the start of
    // its day and timed at the contract hour.
    time_t first = from, last = to;
    if (arch->period) {
        const time_t shift = arch->contractHour ? static_cast<time_t>(m_rateHour < 0 ? 0 : m_rateHour) * 3600 : 0;
        first = from - shift - (from - shift) % 3600;
        last = to - shift;
    }
    // One channel hands each reply over as it comes. Several are taken
    // together and merged in time, so that a channel cut short leaves none of
    // them behind the stored ones; their pointers count only then.
    const bool alone = arch->channels == 1;
    std::vector<ArchiveRecord> recs;
    std::map<size_t, SPointer> pointers;
    for (uint8_t i = 0; i < arch->channels; ++i) {
        const uint8_t channel = static_cast<uint8_t>(arch->firstChannel + i);
        const size_t key = static_cast<size_t>(arch - kArchives) * 256 + channel;
        // The meter's pointer from the last read, when this window starts past
        // what that read gave (not a read again) and the pointer lies inside it.
        const auto known = m_next.find(key);
        const bool atPointer = known != m_next.end() && from > known->second.covered && known->second.next >= first;
        const time_t start = atPointer ? known->second.next : first;
        if (atPointer)
            MTD_DLOG(Info, "CmtdSpgM4::get_arch_values() - %s channel %u from the meter's next-record pointer %lld",
                     arch->kind, static_cast<unsigned>(channel), static_cast<long long>(start));
        SPointer& pointer = alone ? m_next[key] : pointers[key];
        pointer = SPointer{0, from - 1};
        if (!readChannel(*arch, channel, start, last, recs, pointer, alone ? &sink : nullptr))
            return;
    }
    if (!alone && handOver(recs, arch->period != 0, sink))
        for (const auto& p : pointers)
            m_next[p.first] = p.second;
}

void CmtdSpgM4::writeGasPasport() {
    // The M4 layer has no parameter write; the passport stays in the meter's own menu.
    refusePassport("SPG742", m_model);
}
