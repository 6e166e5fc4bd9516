// SPDX-License-Identifier: Apache-2.0
// SPG742 gas volume corrector (Logika, M4 generation) over the M4 protocol.
//
// The exchange (frames in protocols/M4.h):
//   session start   10 NT 3F 00 00 00 00 CS 16     -> 10 NT 3F I1 I2 .. CS ..
//                   I1 I2 is the meter's identification word, 0x472A for SPG742.
//   parameter read  10 NT 90 ID 00 06 00 72 4A 03 CH NL NH CRC
//                   -> 10 NT 90 ID 00 LL LH 72 <element> CRC, e.g. the serial
//                   number: 72 41 04 <u32 little-endian>
//   archive read    10 NT 90 ID 00 18 00 61 04 05 FF FF CH AR NN 49 06 <from> 49 06 <to> CRC
//                   AR archive code (0 hourly, 1 daily, 6 event journal), NN
//                   the most records wanted; the reply is 61 followed by one
//                   container per record, oldest first:
//                   30 LL 49 06 <record time> <field elements ...>
//                   Fewer than NN records means the window is exhausted; else
//                   the next request starts one second after the last record.
// A reply 21 EC is the meter refusing a request (EC error code); it is not
// repeated. There is no closing frame: the meter ends the session itself after
// a minute without requests, so the end of a cycle just leaves the line.
//
// Timing: a second after a request is the longest the meter takes to start
// its answer, not a pause it needs; the driver reads the answer as it comes
// (up to the port's time-out) instead of pausing a second before each of its
// twenty-odd reads a cycle.
//
// Channels: 0 the common channel (ОБЩ), 1 and 2 the two pipes (ТР1, ТР2).
// The meter's clock is local time of its own zone (pu_TZ).
//
// Device facts and their sources:
//  - identification word 0x472A, channels 0..2, maximum 57600 baud, session
//    time-out one minute; parameter 0.8256 the serial number (a 32-bit integer
//    whose low 24 bits are the number); 0.1024 time and 0.1025 date; 0.2048
//    standard volume total, 0.2050 operating time, n.2048 working and n.2049
//    standard volume totals of pipe n; archive codes 0 hourly, 1 daily, 6
//    abnormal-situation (НС) journal: the data tables of the public Logika
//    meter library (Logika.Meters, Python port github.com/Vadsxd/LogikaPython:
//    Meters/4M/SPG742.py for the identification, channels, speed, session
//    time-out and the tag numbers of its polled block; Protocols/M4/
//    M4ArchiveId.py for the archive codes; the 24-bit serial mask of 0.8256).
//    Frame layout and element tags as protocols/M4.h has them.
//  - NOT FOUND in the published material reachable here, so conservative
//    assumptions, marked "assumed" in the tables below and checked only
//    against our own simulator: the numbers of the contract hour (0.25) and
//    contract day (0.24), of the pressure unit selector (0.3: 0 kgf/cm2,
//    1 MPa, 2 bar), of the pipe parameters P, t, Qр, Q and K (n.1024, n.1026,
//    n.1027, n.1028, n.1031), the meaning of 0.8224 (read as the firmware
//    version), the position of the identification word in the session reply,
//    and the field lists of the hourly, daily and journal records.

#include "drivers/logika/CmtdSpgM4.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    bool pressure;        // in the meter's pressure unit, published in kgf/cm2
};

struct CmtdSpgM4::SArchive {
    int archType;
    const char* kind;      // for the logs
    uint8_t code;          // M4 archive code
    uint8_t channel;
    uint8_t perRequest;    // records asked for in one request
    time_t period;         // seconds between records; 0 for a journal
    std::vector<const char*> fields;
};

namespace {

constexpr uint16_t kIdentSpg742 = 0x472A;
constexpr uint32_t kSerialMask = 0x00FFFFFF;

using S = CmtdSpgM4::SParam;

// System parameters, common channel.
const S kSerial{"Read Serial Number", 0, 8256, nullptr, DU_UNKNOWN, false};
const S kFirmware{"Read Firmware", 0, 8224, nullptr, DU_UNKNOWN, false};      // assumed meaning
const S kContractDay{"Read Contract Day", 0, 24, nullptr, DU_UNKNOWN, false};  // assumed number
const S kRateHour{"Read Rate Hour", 0, 25, nullptr, DU_UNKNOWN, false};        // assumed number
const S kPressureUnit{"Read Pressure Unit", 0, 3, nullptr, DU_UNKNOWN, false}; // assumed number
const S kTime{"Read Time", 0, 1024, nullptr, DU_UNKNOWN, false};
const S kDate{"Read Date", 0, 1025, nullptr, DU_UNKNOWN, false};

// Current values and totalisers, in publishing order.
const S kCurrent[] = {
    {"Read Std. Volume", 0, 2048, "Vstd", DU_M3, false},
    {"Read Operating Time", 0, 2050, "OperatingTime", DU_HOUR, false},
    {"Read Work Volume 1", 1, 2048, "Vw1", DU_M3, false},
    {"Read Std. Volume 1", 1, 2049, "Vstd1", DU_M3, false},
    {"Read Pressure 1", 1, 1024, "P1", DU_KGF_CM2, true},         // assumed number
    {"Read Temperature 1", 1, 1026, "T1", DU_GRAD, false},        // assumed number
    {"Read Work Flow 1", 1, 1027, "Qw1", DU_M3_H, false},         // assumed number
    {"Read Std. Flow 1", 1, 1028, "Qstd1", DU_M3_H, false},       // assumed number
    {"Read Correction 1", 1, 1031, "K1", DU_UNKNOWN, false},      // assumed number
    {"Read Work Volume 2", 2, 2048, "Vw2", DU_M3, false},
    {"Read Std. Volume 2", 2, 2049, "Vstd2", DU_M3, false},
    {"Read Pressure 2", 2, 1024, "P2", DU_KGF_CM2, true},         // assumed number
    {"Read Temperature 2", 2, 1026, "T2", DU_GRAD, false},        // assumed number
    {"Read Work Flow 2", 2, 1027, "Qw2", DU_M3_H, false},         // assumed number
    {"Read Std. Flow 2", 2, 1028, "Qstd2", DU_M3_H, false},       // assumed number
    {"Read Correction 2", 2, 1031, "K2", DU_UNKNOWN, false},      // assumed number
};

// Archives of the common channel; field lists assumed (see the notes above).
const CmtdSpgM4::SArchive kArchives[] = {
    {ARCH_HOURLY, "Hourly", 0, 0, 32, 3600, {"V", "V.sum", "Vw.sum", "P1", "t1", "ti", "NS"}},
    {ARCH_DAILY, "Daily", 1, 0, 32, 86400, {"V", "V.sum", "Vw.sum", "P1", "t1", "ti", "NS"}},
    {ARCH_JOURNAL_EVENT, "Events", 6, 0, 32, 0, {"ns", "state"}},
};

LogikaRequest paramRequest(const S& p) {
    LogikaRequest r;
    r.name = p.name;
    r.function = M4::kFnReadParam;
    r.channel = p.channel;
    r.param = p.number;
    return r;
}

}  // namespace

CmtdSpgM4::CmtdSpgM4(int model) : m_model(model) {}

std::unique_ptr<CMtdBaseDriver> CmtdSpgM4::create(int model) {
    return std::make_unique<CmtdSpgM4>(model);
}

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

void CmtdSpgM4::cycle_end() {
    if (!m_session)
        return;
    m_session = false;
    MTD_DLOG(Info, "CmtdSpgM4::cycle_end() - session left to time out");
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
                        {kPressureUnit, "PressureUnit"}};
    for (const auto& row : rows) {
        if (!readParam(row.param, v)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!", row.param.name);
            continue;
        }
        if (&row.param == &kRateHour) {
            // 64 bits, so that a 32-bit controller logs the same number as any other
            const long long h = v.kind == M4::ParamValue::Integer ? static_cast<long long>(v.integer)
                                                                  : std::strtoll(v.text.c_str(), nullptr, 10);
            if (h < 0 || h > 23) {
                MTD_DLOG(Err, "CmtdSpgM4::get_all_system_values() - WRONG RATE HOUR %lld !!!", h);
                continue;
            }
            m_rateHour = static_cast<int>(h);
        }
        if (&row.param == &kPressureUnit)
            m_pressureUnit = static_cast<int>(v.kind == M4::ParamValue::Integer ? v.integer : std::atoi(v.text.c_str()));
        add(row.name, v.text);
    }
    // The interval archives have a fixed layout: one record an hour, one a contract day.
    add("ArchivePeriod", "60");
    return out;
}

bool CmtdSpgM4::toKgfCm2(double value, double& out) const {
    double factor = 0;
    if (!m4PressureFactor(m_pressureUnit, "toKgfCm2", factor))
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
    if (m_pressureUnit < 0) {
        M4::ParamValue u;
        if (readParam(kPressureUnit, u))
            m_pressureUnit = static_cast<int>(u.integer);
    }
    for (const auto& cur : kCurrent) {
        M4::ParamValue v;
        if (!readParam(cur, v) || v.kind != M4::ParamValue::Number) {
            MTD_DLOG(Warning, "CmtdSpgM4::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", cur.name);
            continue;
        }
        double value = v.number;
        if (cur.pressure && !toKgfCm2(v.number, value))
            continue;
        out.push_back(makeValue(cur.publish, formatNumber(value), cur.unit, now, m_sys));
    }
    return out;
}

bool CmtdSpgM4::parseRecord(const SArchive& arch, const uint8_t* data, size_t size, ArchiveRecord& rec) {
    M4::ParamValue v;
    if (!m_proto->GetParamValue(data, size, v) || v.tag != 0x49)
        return false;
    rec.timestamp = fromDeviceTime(v.year, v.month, v.day, v.hour, v.minute, v.second);
    size_t pos = v.size();
    for (const char* field : arch.fields) {
        if (pos >= size || !m_proto->GetParamValue(data + pos, size - pos, v))
            return false;
        std::string text = v.text;
        if (arch.period == 0 && std::strcmp(field, "state") == 0)
            text = v.integer ? "on" : "off";
        rec.fields.emplace_back(field, text);
        pos += v.size();
    }
    return pos == size;  // a record with more fields than the layout is not ours
}

bool CmtdSpgM4::parseArchive(const SArchive& arch, time_t from, time_t to, CArchiveSink& sink,
                             size_t& records, time_t& last) {
    const uint8_t* body = m_proto->body();
    const size_t size = m_proto->bodyLength();
    records = 0;
    if (size < 1 || body[0] != M4::kFnReadArchive)
        return false;
    for (size_t pos = 1; pos < size;) {
        M4::ParamValue c;
        if (!m_proto->GetParamValue(body + pos, size - pos, c) || c.tag != 0x30) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: BAD RECORD CONTAINER AT %u !!!",
                    arch.kind, static_cast<unsigned>(pos));
            return false;
        }
        ArchiveRecord rec;
        rec.sys = std::atoi(m_sys.c_str());
        if (!parseRecord(arch, body + pos + c.headerSize, c.length, rec)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: RECORD LAYOUT DOESN'T MATCH %u FIELDS !!!", arch.kind, static_cast<unsigned>(arch.fields.size()));
            return false;
        }
        pos += c.size();
        ++records;
        // Records come oldest first; one that goes back, or an interval record
        // off the hour grid, means the meter's archive is not what we think it
        // is: stop before it rather than store it.
        if (rec.timestamp <= last || (arch.period && (rec.timestamp % 3600) != 0)) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: RECORD TIME %lld OUT OF ORDER AFTER %lld !!!", arch.kind, static_cast<long long>(rec.timestamp), static_cast<long long>(last));
            return false;
        }
        // A hole inside one transfer ends it before the hole. The next read then
        // starts at the missing time; if the meter answers again with the
        // record after the hole first, the hole is its own (a power cut) and
        // the archive goes on from there.
        if (arch.period && last >= from && last > 0 && rec.timestamp - last > arch.period) {
            MTD_DLOG(Warning, "CmtdSpgM4::get_arch_values() - %s: NO RECORDS FROM %lld TO %lld, READ AGAIN", arch.kind, static_cast<long long>(last + arch.period),
                    static_cast<long long>(rec.timestamp - arch.period));
            return false;
        }
        last = rec.timestamp;
        if (rec.timestamp < from || rec.timestamp > to) {
            MTD_DLOG(Debug, "CmtdSpgM4::get_arch_values() - record timestamp %lld is out of %lld...%lld. Skip it.", static_cast<long long>(rec.timestamp), static_cast<long long>(from),
                    static_cast<long long>(to));
            continue;
        }
        if (sink.add(std::move(rec)) == CArchiveSink::Stop)
            return false;
    }
    return true;
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
    time_t start = from;
    time_t last = 0;
    while (start <= to) {
        // The M4 layer writes the window in the process's local time; hand it
        // the instant whose local fields are the meter's clock reading.
        LogikaRequest r;
        r.name = std::string("Read ") + arch->kind + " Archive";
        r.function = M4::kFnReadArchive;
        r.channel = arch->channel;
        r.args = {arch->code, arch->perRequest, protocolTimeArg(start), protocolTimeArg(to)};
        if (!m_proto->SendRequest(r))
            throw CDisconnectException("archive request not answered");
        if (m_proto->isError()) {
            MTD_DLOG(Err, "CmtdSpgM4::get_arch_values() - %s: METER REFUSED THE REQUEST (0x%02X) !!!",
                    arch->kind, m_proto->errorCode());
            return;
        }
        size_t records = 0;
        const bool whole = parseArchive(*arch, from, to, sink, records, last);
        if (!sink.endBlock() || !whole || records < arch->perRequest)
            return;
        start = last + 1;
    }
}

void CmtdSpgM4::writeGasPasport() {
    // The M4 layer has no parameter write; the passport stays in the meter's own menu.
    refusePassport("SPG742", m_model);
}
