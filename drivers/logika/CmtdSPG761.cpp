// SPDX-License-Identifier: Apache-2.0
#include "drivers/logika/CmtdSPG761.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "drivers/logika/SPG761Table.h"
#include "framework/CArchiveSink.h"
#include "transport/CConnector.h"

struct CmtdSPG761::Column {
    size_t position;  // in the slice's values
    const char* field;
};

namespace {

using spg761::Channel;
constexpr uint8_t FF = 0x0C, HT = 0x09;
// A journal reply this long was cut by the meter (it stops near 5500 bytes).
constexpr size_t kFullReply = 5000;
// Slices walked before the records so far are handed on: a transfer broken
// later keeps them.
constexpr int kSlicesPerBlock = 24;

// Published current values, in this order; pressures converted to kgf/cm2.
using CurrentValue = gas::CurrentValue;
const CurrentValue kCurrent[] = {
    {"Read Std. Volume", "Vstd", DU_M3, false},  {"Read Work Volume", "Vw", DU_M3, false},
    {"Read Pressure", "P", DU_KGF_CM2, true},    {"Read Temperature", "T", DU_GRAD, false},
    {"Read Std. Flow", "Qstd", DU_M3_H, false},  {"Read Work Flow", "Qw", DU_M3_H, false},
    {"Read Correction", "Kcorr", DU_UNKNOWN, false},
};

// Pressure unit texts as the meter sends them (CP866 and Latin).
struct PressureUnit {
    const char* text;
    uint32_t unit;
};
const PressureUnit kPressureUnits[] = {
    {"\x8C\x8F\xA0", DU_MPA},                       // МПа
    {"\xAA\x8F\xA0", DU_KPA},                       // кПа
    {"\xAA\xA3\xE1/\xE1\xAC" "2", DU_KGF_CM2},      // кгс/см2
    {"\xA1\xA0\xE0", DU_BAR},                       // бар
    {"MPa", DU_MPA}, {"kPa", DU_KPA}, {"kgf/cm2", DU_KGF_CM2}, {"bar", DU_BAR},
};

// "Дата/время?" in CP866: the meter could not take the window asked for.
const char* const kNoWindow = "\x84\xA0\xE2\xA0/\xA2\xE0\xA5\xAC\xEF?";

const spg761::Param* findParam(const std::string& name) {
    for (const auto& row : spg761::kParams)
        if (name == row.name)
            return &row;
    return nullptr;
}

const spg761::Archive* findArchive(int archType) {
    for (const auto& row : spg761::kArchives)
        if (row.archType == archType)
            return &row;
    return nullptr;
}

bool parseInt(const std::string& s, int lo, int hi, int& out) {
    if (s.empty() || s.size() > 4)
        return false;
    char* end = nullptr;
    long v = std::strtol(s.c_str(), &end, 10);
    if (*end != '\0' || v < lo || v > hi)
        return false;
    out = static_cast<int>(v);
    return true;
}

bool parseNumber(const std::string& s) {
    if (s.empty())
        return false;
    char* end = nullptr;
    std::strtod(s.c_str(), &end);
    return *end == '\0';
}

// The meter's own diagnosis instead of a value ("...?"), or not a number it can give.
bool noValue(const std::string& s) {
    std::string low;
    for (char c : s)
        low += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto ends = [&](const char* tail) {
        const size_t n = std::strlen(tail);
        return low.size() >= n && low.compare(low.size() - n, n, tail) == 0;
    };
    return low.empty() || ends("?") || ends("nan") || ends("inf");
}

// Meter text (CP866) as UTF-8: Cyrillic letters, Ё ё and the degree sign;
// any other byte above 0x7F becomes '?'.
std::string fromCp866(const std::string& text) {
    std::string out;
    auto put = [&](unsigned cp) {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
            return;
        }
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    };
    for (char ch : text) {
        const unsigned b = static_cast<unsigned char>(ch);
        if (b < 0x80)
            put(b);
        else if (b < 0xB0)
            put(0x410 + (b - 0x80));
        else if (b >= 0xE0 && b < 0xF0)
            put(0x440 + (b - 0xE0));
        else if (b == 0xF0 || b == 0xF1)
            put(b == 0xF0 ? 0x401 : 0x451);
        else if (b == 0xF8)
            put(0xB0);
        else
            put('?');
    }
    return out;
}

// Two-digit years are of this century; four digits are taken as they are.
int fullYear(int y) {
    return y < 100 ? 2000 + y : y;
}

}  // namespace

CmtdSPG761::CmtdSPG761(int model) : m_model(model) {}

CmtdSPG761::~CmtdSPG761() {
    StopPolling();
}

const char* CmtdSPG761::getMeterModelName() const {
    return m_model == 1 ? "SPG761.1" : "SPG761";
}

bool CmtdSPG761::newGeneration(const std::string& model) {
    if (model.size() < 6)
        return false;
    const std::string sub = model.substr(3, 3);
    return sub == ".1v" || sub == ".2v" || sub == ".1V" || sub == ".2V";
}

void CmtdSPG761::SaveConnector(CConnector* connector) {
    m_connector = connector;
    m_proto = connector ? std::make_unique<SpNet::CSpNet>(*connector, logId(), driverName()) : nullptr;
}

CmtdSPG761::Blocks CmtdSPG761::splitBody(const uint8_t* reply, size_t length) {
    // DLE SOH DLE ISI FN DLE STX <body> DLE ETX crc crc
    Blocks blocks;
    if (length < 11)
        return blocks;
    const size_t end = length - 4;  // the DLE of DLE ETX
    std::vector<std::string> block;
    std::string field;
    bool inField = false;
    for (size_t i = 7; i < end; ++i) {
        const uint8_t b = reply[i];
        if (b == HT || b == FF) {
            if (inField)
                block.push_back(field);
            field.clear();
            inField = b == HT;
            if (b == FF) {
                blocks.push_back(block);
                block.clear();
            }
        } else if (inField) {
            field += static_cast<char>(b);
        }
    }
    return blocks;
}

bool CmtdSPG761::sendRequest(const LogikaRequest& request) {
    if (!m_proto || !m_proto->SendRequest(request))
        return false;
    // The pointer the meter echoes must be the one asked for: a reply to a
    // request that was garbled on its way is of no use.
    Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
    int ch = -1, param = -1;
    if (blocks.empty() || blocks[0].size() < 2 || !parseInt(blocks[0][0], 0, 9, ch) ||
        !parseInt(blocks[0][1], 0, 999, param) || ch != static_cast<int>(request.args[0]) ||
        param != static_cast<int>(request.args[1])) {
        MTD_DLOG(Err, "CmtdSPG761::sendRequest('%s') - WRONG POINTER IN REPLY !!!", request.name.c_str());
        return false;
    }
    return true;
}

bool CmtdSPG761::sendRequest(const std::string& name) {
    const spg761::Param* row = findParam(name);
    if (!row) {
        MTD_DLOG(Err, "CmtdSPG761::sendRequest('%s') - CAN'T SEND REQUEST, NO SUCH ROW !!!", name.c_str());
        return false;
    }
    LogikaRequest request;
    request.name = row->name;
    request.function = row->function;
    request.channel = row->channel == Channel::Pipe ? static_cast<uint8_t>(m_pipe) : 0;
    request.param = row->number;
    request.args = {request.channel, row->number, row->index, row->count};
    return sendRequest(request);
}

bool CmtdSPG761::readValue(const std::string& name, std::string& value, std::string& unit) {
    if (!sendRequest(name))
        return false;
    Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
    if (blocks.size() < 2 || blocks[1].empty() || noValue(blocks[1][0])) {
        MTD_DLOG(Err, "CmtdSPG761::readValue('%s') - NO VALUE IN REPLY ('%s') !!!", name.c_str(),
                 blocks.size() < 2 || blocks[1].empty() ? "" : blocks[1][0].c_str());
        return false;
    }
    value = blocks[1][0];
    unit = blocks[1].size() > 1 ? blocks[1][1] : std::string();
    return true;
}

bool CmtdSPG761::init() {
    MTD_DLOG(Info, "SPG761 driver version %02X.%02X, compiled: %s %s", 1, 1, __DATE__, __TIME__);
    takeSystem();
    m_pipe = std::atoi(m_sys.c_str());
    if (m_pipe < 1 || m_pipe > 3) {
        MTD_DLOG(Warning, "CmtdSPG761::init() - WRONG PIPELINE '%s', USE 1", m_sys.c_str());
        m_pipe = 1;
    }
    MTD_DLOG(Info, "CmtdSPG761::init() - model %s, serial '%s', pipeline %d, pu_TZ = %d",
            getMeterModelName(), m_config.serial_text.c_str(), m_pipe, deviceTzHours());
    if (!m_proto)
        throw CDisconnectException("no connector");
    // No session to open: the date read proves the meter is there.
    std::string value, unit;
    if (!readValue("Read Date", value, unit)) {
        // A hung-up line stays dead on the old descriptor: reopen next cycle.
        m_connector->close_device();
        throw CDisconnectException("no answer");
    }
    return true;
}

void CmtdSPG761::cycle_end() {
    // SPbus keeps no session: nothing to close, but bytes of a reply given up
    // on must not greet the next cycle.
    if (m_connector && m_connector->is_open())
        m_connector->FlushBuffers();
    MTD_DLOG(Info, "CmtdSPG761::cycle_end() - line left idle");
}

std::vector<CValueRecord> CmtdSPG761::get_all_system_values() {
    MTD_DLOG(Info, "--- CmtdSPG761::get_all_system_values() ----------------------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    std::string nowText;
    deviceTime(now, nowText);
    auto add = [&](const char* name, const std::string& value, uint32_t unit = DU_UNKNOWN) {
        out.push_back(makeValue(name, value, unit, now, m_sys));
    };
    auto missing = [&](const char* request) {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!", request);
    };
    std::string value, unit, serial;
    bool fresh = m_model == 1;
    if (readValue("Read Model", value, unit)) {
        fresh = newGeneration(value);
        // "761" and what follows; on the new generation ".1v" / ".2v" and the version.
        const std::string model = fresh ? value.substr(0, 5) : value.substr(0, 3);
        std::string version = fresh ? value.substr(6) : value.substr(3);
        version.erase(0, version.find_first_not_of(" "));
        if (model.compare(0, 3, "761") != 0 || fresh != (m_model == 1))
            MTD_DLOG(Warning, "CmtdSPG761::get_all_system_values() - METER REPORTS MODEL '%s', CONFIGURED %s",
                     value.c_str(), getMeterModelName());
        add("MeterModel", model);
        if (!version.empty())
            add("Firmware", version);
    } else {
        missing("Read Model");
    }
    if (fresh) {
        Blocks blocks;
        if (sendRequest("Read Model And Serial"))
            blocks = splitBody(m_proto->reply(), m_proto->replyLength());
        if (blocks.size() >= 3 && !blocks[2].empty() && !noValue(blocks[2][0]))
            serial = blocks[2][0];
    } else if (readValue("Read Identifier", value, unit)) {
        serial = value;
    }
    if (serial.empty()) {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - CAN'T READ SERIAL NUMBER !!!");
    } else {
        checkSerial(serial);
        add("SerialNumber", serial);
    }
    int hour = 0;
    if (readValue("Read Rate Hour", value, unit) && parseInt(value, 0, 23, hour)) {
        m_rateHour = hour;
        add("RateHour", value);
    } else {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - WRONG RATE HOUR '%s' !!!", value.c_str());
    }
    int day = 0;
    if (readValue("Read Rate Day", value, unit) && parseInt(value, 1, 31, day))
        add("RateDay", value);
    else
        missing("Read Rate Day");
    if (readValue("Read Eng Units", value, unit))
        add("EngUnits", value);
    else
        missing("Read Eng Units");
    return out;
}

bool CmtdSPG761::deviceTime(time_t& t, std::string& text) {
    std::string date, time, unit;
    int d, mo, y, h, mi, s;
    char tail = 0;
    if (!readValue("Read Date", date, unit) || !readValue("Read Time", time, unit))
        return false;
    if (std::sscanf(date.c_str(), "%2d-%2d-%2d%c", &d, &mo, &y, &tail) != 3 ||
        std::sscanf(time.c_str(), "%2d:%2d:%2d%c", &h, &mi, &s, &tail) != 3 || d < 1 || d > 31 || mo < 1 || mo > 12 ||
        y < 0 || h > 23 || h < 0 || mi < 0 || mi > 59 || s < 0 || s > 59) {
        MTD_DLOG(Err, "CmtdSPG761::deviceTime() - CAN'T PARSE '%s %s'", date.c_str(),
                time.c_str());
        return false;
    }
    t = fromDeviceTime(2000 + y, mo, d, h, mi, s);
    text = deviceTimeText(t);
    return true;
}

bool CmtdSPG761::GetTimestamps(time_t& deviceTimeOut, int& rateHour) {
    std::string text;
    if (!deviceTime(deviceTimeOut, text))
        noDeviceTime("GetTimestamps", "CAN'T GET CURRENT DATETIME, EXCEPTION IS THROWN !!!");
    std::string value, unit;
    int hour = 0;
    if (m_rateHour < 0 && readValue("Read Rate Hour", value, unit) && parseInt(value, 0, 23, hour))
        m_rateHour = hour;
    rateHour = m_rateHour < 0 ? 0 : m_rateHour;
    return true;
}

double CmtdSPG761::getPressureCoef(const std::string& unit) const {
    double factor = 0;
    for (const auto& u : kPressureUnits)
        if (unit == u.text && pressureFactor(u.unit, factor))
            return factor;
    MTD_DLOG(Err, "CmtdSPG761::getPressureCoef() - UNKNOWN PRESSURE UNIT '%s'",
            unit.c_str());
    return 0;
}

std::vector<CValueRecord> CmtdSPG761::get_all_curtime_cur_integ_values() {
    MTD_DLOG(Info, "--- CmtdSPG761::get_all_curtime_cur_integ_values() -----------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    std::string nowText;
    if (!deviceTime(now, nowText))
        noDeviceTime("get_all_curtime_cur_integ_values", "CAN'T READ CURRENT TIME !!!");
    out.push_back(makeValue("DateTime", nowText, DU_UNKNOWN, now, m_sys));
    for (const auto& cur : kCurrent) {
        std::string value, unit;
        if (!readValue(cur.request, value, unit) || !parseNumber(value)) {
            MTD_DLOG(Warning, "CmtdSPG761::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", cur.request);
            continue;
        }
        CValueRecord r = makeValue(cur.name, value, cur.unit, now, m_sys);
        if (cur.pressure) {
            const double coef = getPressureCoef(unit);
            if (coef <= 0)
                continue;
            r.value = formatNumber(std::strtod(value.c_str(), nullptr) * coef);
        }
        out.push_back(r);
    }
    return out;
}

bool CmtdSPG761::hasArchive(int archType) const {
    return findArchive(archType) != nullptr;
}

void CmtdSPG761::get_arch_values(CArchiveSink& sink) {
    const spg761::Archive& archive = *findArchive(sink.type());
    const bool done = sink.journal() ? readJournal(archive, sink) : readSlices(archive, sink);
    if (!done) {
        sink.interrupted();
        throw CDisconnectException("archive transfer broken");
    }
}

CmtdSPG761::HandOn CmtdSPG761::handOn(std::vector<ArchiveRecord>& records, CArchiveSink& sink) {
    std::vector<ArchiveRecord> batch;
    batch.swap(records);
    for (auto& rec : batch) {
        const long long ts = rec.timestamp;
        // The walk asked for every interval in between: a hole is the meter's own.
        CArchiveSink::Verdict verdict = sink.add(rec);
        if (verdict == CArchiveSink::Gap) {
            sink.resync();
            verdict = sink.add(std::move(rec));
        }
        if (verdict == CArchiveSink::Stop)
            return HandOn::Stop;
        if (verdict == CArchiveSink::Gap) {
            // Off the archive's grid even on its own.
            MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BAD SLICE %d - TRANSFER ENDS !!!", static_cast<int>(ts));
            return HandOn::Broken;
        }
    }
    return sink.endBlock() ? HandOn::Next : HandOn::Stop;
}

// The descriptor's columns of the configured pipeline and of the common
// channel that the table knows, in the table's order.
bool CmtdSPG761::readColumns(const spg761::Archive& archive, std::vector<Column>& columns) {
    LogikaRequest request;
    request.name = "Read Slice Columns";
    request.function = SpNet::kFnReadTableDescriptor;
    request.param = archive.number;
    request.args = {0, archive.number, 0, 0};
    if (!sendRequest(request))
        return false;
    const Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
    columns.clear();
    for (const auto& want : spg761::kColumns) {
        const int channel = want.channel == Channel::Pipe ? m_pipe : 0;
        for (size_t i = 1; i < blocks.size(); ++i) {
            int ch = -1, number = -1;
            if (blocks[i].size() >= 4 && parseInt(blocks[i][2], 0, 9, ch) && parseInt(blocks[i][3], 0, 999, number) &&
                ch == channel && number == want.number) {
                columns.push_back({i - 1, want.field});
                break;
            }
        }
    }
    if (columns.empty()) {
        MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - NO KNOWN COLUMN IN ARCHIVE %03d OF %d COLUMNS !!!",
                 archive.number, static_cast<int>(blocks.empty() ? 0 : blocks.size() - 1));
        return false;
    }
    return true;
}

bool CmtdSPG761::readSlices(const spg761::Archive& archive, CArchiveSink& sink) {
    std::vector<Column> columns;
    if (!readColumns(archive, columns))
        return false;
    const time_t period = archive.archType == ARCH_HOURLY ? 3600 : 86400;
    // Days close at the contract hour of the device clock.
    const time_t gridOffset = (archive.archType == ARCH_DAILY ? static_cast<time_t>(m_rateHour < 0 ? 0 : m_rateHour) * 3600 : 0) -
                              static_cast<time_t>(deviceTzHours()) * 3600;
    sink.setInterval(period, true, gridOffset);
    // Blocks of slices from the oldest: each block is walked back from its
    // end and handed on whole, so a transfer broken later keeps it.
    std::vector<ArchiveRecord> records;
    for (time_t start = sink.from(); start <= sink.to();) {
        const time_t end = std::min<time_t>(sink.to(), start + kSlicesPerBlock * period - 1);
        if (!walkSlices(archive, columns, start, end, records))
            return false;
        const HandOn next = handOn(records, sink);
        if (next != HandOn::Next)
            return next == HandOn::Stop;
        start = end + 1;
    }
    return true;
}

// The slice at the time asked is the interval holding it; its pointer to the
// interval before is followed until it leaves the block. Slice times must not
// be later than the time asked and must go back strictly; a reply that breaks
// this ends the transfer. (The sink checks the grid.)
bool CmtdSPG761::walkSlices(const spg761::Archive& archive, const std::vector<Column>& columns, time_t from,
                            time_t to, std::vector<ArchiveRecord>& records) {
    const bool hourly = archive.archType == ARCH_HOURLY;
    auto stamp = [&](const std::vector<std::string>& b, time_t& t) {
        int d, mo, y, h, mi, s;
        if (b.size() != 6 || !parseInt(b[0], 1, 31, d) || !parseInt(b[1], 1, 12, mo) || !parseInt(b[2], 0, 2099, y) ||
            !parseInt(b[3], 0, 23, h) || !parseInt(b[4], 0, 59, mi) || !parseInt(b[5], 0, 59, s))
            return false;
        t = fromDeviceTime(fullYear(y), mo, d, h, mi, s);
        return true;
    };
    std::vector<ArchiveRecord> walked;  // newest first
    LogikaRequest request;
    request.name = hourly ? "Read Hourly Slice" : "Read Daily Slice";
    request.function = SpNet::kFnReadTableRow;
    request.param = archive.number;
    for (time_t at = to, newer = to + 1; at >= from;) {
        request.args = {0, archive.number, protocolTimeArg(at), 0};
        if (!sendRequest(request))
            return false;
        const Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
        time_t ts = 0, prev = 0;
        if (blocks.size() < 5 || !stamp(blocks[2], ts) || !stamp(blocks[3], prev) || ts > at || ts >= newer ||
            prev >= ts) {
            MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BAD SLICE %d AT %d - TRANSFER ENDS !!!", static_cast<int>(ts),
                     static_cast<int>(at));
            return false;
        }
        if (ts >= from) {
            ArchiveRecord rec;
            rec.sys = m_pipe;
            rec.timestamp = ts;
            rec.fields.emplace_back("DateTime", deviceTimeText(ts));
            bool any = false;
            for (const auto& c : columns) {
                const size_t i = 4 + c.position;
                if (i < blocks.size() && !blocks[i].empty() && !noValue(blocks[i][0])) {
                    rec.fields.emplace_back(c.field, blocks[i][0]);
                    any = true;
                }
            }
            // An interval the meter holds nothing for (before its archive
            // began, or while it was off) answers with diagnoses only.
            if (any)
                walked.push_back(std::move(rec));
        }
        newer = ts;
        at = prev;
    }
    records.insert(records.end(), std::make_move_iterator(walked.rbegin()), std::make_move_iterator(walked.rend()));
    return true;
}

// The window is read from its end: a reply holds the newest entries that fit.
// When the meter had to cut it, the entries of its oldest second are read
// again with the next reply, which ends at that second. Nothing is handed on
// before the whole window is in, oldest first.
bool CmtdSPG761::readJournal(const spg761::Archive& archive, CArchiveSink& sink) {
    const time_t from = sink.from();
    std::vector<ArchiveRecord> walked;  // newest first
    LogikaRequest request;
    request.name = "Read Event Journal";
    request.function = SpNet::kFnReadArchive;
    request.channel = archive.channel == Channel::Pipe ? static_cast<uint8_t>(m_pipe) : 0;
    request.param = archive.number;
    for (time_t end = sink.to(); end >= from;) {
        request.args = {request.channel, archive.number, protocolTimeArg(end), protocolTimeArg(from)};
        if (!sendRequest(request))
            return false;
        const Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
        if (blocks.size() < 3) {
            MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BROKEN JOURNAL REPLY (%d BLOCKS) !!!",
                     static_cast<int>(blocks.size()));
            return false;
        }
        if (blocks.size() == 4 && blocks[3].size() == 1 && blocks[3][0] == kNoWindow) {
            MTD_DLOG(Warning, "CmtdSPG761::get_arch_values() - METER CAN'T READ THE JOURNAL FROM %s TO %s !!!",
                     deviceTimeText(from).c_str(), deviceTimeText(end).c_str());
            break;
        }
        std::vector<ArchiveRecord> reply;
        std::string unit;
        time_t before = 0;  // the time of the entry before, 0 at the first
        for (size_t i = 3; i < blocks.size(); ++i) {
            const auto& b = blocks[i];
            int d, mo, y, h, mi, s;
            char tail = 0;
            if (b.size() != 3 || std::sscanf(b[2].c_str(), "%2d-%2d-%2d/%2d:%2d:%2d%c", &d, &mo, &y, &h, &mi, &s, &tail) != 6 ||
                d < 1 || d > 31 || mo < 1 || mo > 12 || y < 0 || h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 59) {
                MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BAD JOURNAL ENTRY %d - TRANSFER ENDS !!!",
                         static_cast<int>(i - 3));
                return false;
            }
            const time_t ts = fromDeviceTime(fullYear(y), mo, d, h, mi, s);
            if (before != 0 && ts > before) {
                MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - JOURNAL ENTRY %d AFTER %d - TRANSFER ENDS !!!",
                         static_cast<int>(ts), static_cast<int>(before));
                return false;
            }
            before = ts;
            if (!b[1].empty())
                unit = b[1];
            // The meter may add the entry after the end asked as a hint: a
            // reply before this one had it.
            if (ts > end)
                continue;
            ArchiveRecord rec;
            rec.sys = m_pipe;
            rec.timestamp = ts;
            rec.fields.emplace_back("DateTime", deviceTimeText(ts));
            rec.fields.emplace_back("Event", fromCp866(b[0]));
            rec.fields.emplace_back("Description", fromCp866(unit));
            reply.push_back(std::move(rec));
        }
        const bool full = m_proto->replyLength() > kFullReply;
        if (!full || reply.empty()) {
            walked.insert(walked.end(), std::make_move_iterator(reply.begin()), std::make_move_iterator(reply.end()));
            break;
        }
        const time_t newest = reply.front().timestamp, oldest = reply.back().timestamp;
        if (oldest == newest) {
            // A whole reply of one second: what else that second holds is lost to it.
            MTD_DLOG(Warning, "CmtdSPG761::get_arch_values() - JOURNAL REPLY FULL OF ONE SECOND %s !!!",
                     deviceTimeText(oldest).c_str());
            walked.insert(walked.end(), std::make_move_iterator(reply.begin()), std::make_move_iterator(reply.end()));
            end = oldest - 1;
            continue;
        }
        for (auto& rec : reply)
            if (rec.timestamp > oldest)
                walked.push_back(std::move(rec));
        end = oldest;
    }
    std::vector<ArchiveRecord> records(std::make_move_iterator(walked.rbegin()), std::make_move_iterator(walked.rend()));
    return handOn(records, sink) != HandOn::Broken;
}

void CmtdSPG761::writeGasPasport() {
    // Reading is all this connection does: the meter takes parameter writes
    // only with its database unlocked at the keyboard.
    refusePassport(getMeterModelName(), m_model);
}
