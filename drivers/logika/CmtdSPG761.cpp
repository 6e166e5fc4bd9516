// SPDX-License-Identifier: Apache-2.0
#include "drivers/logika/CmtdSPG761.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "core/logger.h"
#include "transport/CConnector.h"

struct CmtdSPG761::SRequest {
    const char* name;
    uint32_t function;
    uint8_t channel;  // 0 common; kPipe: the configured pipeline
    uint16_t param;
    uint32_t index;   // 0x0C: first element
    uint32_t count;   // 0x0C: number of elements
};

namespace {

using D = CmtdSPG761;
constexpr uint8_t kPipe = 0xFF;
constexpr uint8_t FF = 0x0C, HT = 0x09;

// All parameter numbers are assumed (see the opening notes of the header).
const D::SRequest kTable[] = {
    {"Read Identifier", SpNet::kFnReadParam, 0, 8, 0, 0},         // ИД
    {"Read Model", SpNet::kFnReadParam, 0, 99, 0, 0},             // model and version
    {"Read Rate Day", SpNet::kFnReadParam, 0, 24, 0, 0},          // СР
    {"Read Rate Hour", SpNet::kFnReadParam, 0, 25, 0, 0},         // ЧР
    {"Read Date", SpNet::kFnReadParam, 0, 60, 0, 0},              // ДТ dd-mm-yy
    {"Read Time", SpNet::kFnReadParam, 0, 61, 0, 0},              // ВР hh-mm-ss
    {"Read Gas Composition", SpNet::kFnReadArray, 0, 30, 0, 3},   // density, N2, CO2
    {"Read Pressure", SpNet::kFnReadParam, kPipe, 150, 0, 0},
    {"Read Temperature", SpNet::kFnReadParam, kPipe, 151, 0, 0},
    {"Read Work Flow", SpNet::kFnReadParam, kPipe, 152, 0, 0},
    {"Read Std. Flow", SpNet::kFnReadParam, kPipe, 153, 0, 0},
    {"Read Correction", SpNet::kFnReadParam, kPipe, 154, 0, 0},
    {"Read Std. Volume", SpNet::kFnReadParam, kPipe, 160, 0, 0},
    {"Read Work Volume", SpNet::kFnReadParam, kPipe, 161, 0, 0},
    {"Read Hourly Archive", SpNet::kFnReadArchive, kPipe, 65, 0, 0},
    {"Read Daily Archive", SpNet::kFnReadArchive, kPipe, 66, 0, 0},
    {"Read Event Journal", SpNet::kFnReadArchive, 0, 96, 0, 0},    // НС journal
};

// Published current values, in this order; pressures converted to kgf/cm2.
struct CurrentValue {
    const char* request;
    const char* name;
    uint32_t unit;
    bool pressure;
};
const CurrentValue kCurrent[] = {
    {"Read Std. Volume", "Vstd", DU_M3, false},  {"Read Work Volume", "Vw", DU_M3, false},
    {"Read Pressure", "P", DU_KGF_CM2, true},    {"Read Temperature", "T", DU_GRAD, false},
    {"Read Std. Flow", "Qstd", DU_M3_H, false},  {"Read Work Flow", "Qw", DU_M3_H, false},
    {"Read Correction", "Kcorr", DU_UNKNOWN, false},
};

// The gas composition array, element by element.
const CurrentValue kComposition[] = {
    {"", "PassS", DU_KG_M3, false}, {"", "PassN2", DU_PERCENT, false}, {"", "PassCO2", DU_PERCENT, false}};

// The columns of the records after the time, as the meter orders them.
const std::vector<const char*> kArchFields = {"Vstd", "Vw", "P", "T", "NS"};
// Event journal: the number of the nonstandard situation and "+" when it
// began, "-" when it ended.
const std::vector<const char*> kEventFields = {"Event", "State"};

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

}  // namespace

CmtdSPG761::CmtdSPG761(int model) : m_model(model) {}

std::unique_ptr<CMtdBaseDriver> CmtdSPG761::create(int model) {
    return std::make_unique<CmtdSPG761>(model);
}

CmtdSPG761::~CmtdSPG761() {
    StopPolling();
}

const char* CmtdSPG761::getMeterModelName() const {
    return m_model == 1 ? "SPG761.1" : "SPG761";
}

void CmtdSPG761::SaveConnector(CConnector* connector) {
    m_connector = connector;
    m_proto = connector ? std::make_unique<SpNet::CSpNet>(*connector, logId(), driverName()) : nullptr;
}

const CmtdSPG761::SRequest* CmtdSPG761::findRequest(const std::string& name) const {
    for (const auto& row : kTable)
        if (name == row.name)
            return &row;
    return nullptr;
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

bool CmtdSPG761::sendRequest(const std::string& name, uint32_t a2, uint32_t a3) {
    const SRequest* row = findRequest(name);
    if (!m_proto || !row) {
        MTD_DLOG(Err, "CmtdSPG761::sendRequest('%s') - CAN'T SEND REQUEST, NO SUCH ROW !!!", name.c_str());
        return false;
    }
    LogikaRequest request;
    request.name = row->name;
    request.function = row->function;
    request.channel = row->channel == kPipe ? static_cast<uint8_t>(m_pipe) : row->channel;
    request.param = row->param;
    request.args = {request.channel, row->param, row->function == SpNet::kFnReadArray ? row->index : a2,
                    row->function == SpNet::kFnReadArray ? row->count : a3};
    if (!m_proto->SendRequest(request))
        return false;
    // The pointer the meter echoes must be the one asked for: a reply to a
    // request that was garbled on its way is of no use.
    Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
    int ch = -1, param = -1;
    if (blocks.empty() || blocks[0].size() < 2 || !parseInt(blocks[0][0], 0, 9, ch) ||
        !parseInt(blocks[0][1], 0, 999, param) || ch != request.channel || param != row->param) {
        MTD_DLOG(Err, "CmtdSPG761::sendRequest('%s') - WRONG POINTER IN REPLY !!!",
                name.c_str());
        return false;
    }
    return true;
}

bool CmtdSPG761::readValue(const std::string& name, std::string& value, std::string& unit) {
    if (!sendRequest(name))
        return false;
    Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
    if (blocks.size() < 2 || blocks[1].empty() || blocks[1][0].empty()) {
        MTD_DLOG(Err, "CmtdSPG761::readValue('%s') - NO VALUE IN REPLY !!!",
                name.c_str());
        return false;
    }
    value = blocks[1][0];
    unit = blocks[1].size() > 1 ? blocks[1][1] : std::string();
    return true;
}

bool CmtdSPG761::init() {
    MTD_DLOG(Info, "SPG761 driver version %02X.%02X, compiled: %s %s", 1, 0, __DATE__, __TIME__);
    takeSystem();
    m_pipe = std::atoi(m_sys.c_str());
    if (m_pipe < 1 || m_pipe > 9) {
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
    std::string value, unit;
    if (!readValue("Read Identifier", value, unit)) {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - CAN'T READ SERIAL NUMBER !!!");
    } else {
        checkSerial(value);
        add("SerialNumber", value);
    }
    if (readValue("Read Model", value, unit)) {
        // "761" or "761.1" and the version after a blank, e.g. "761.1 02.03".
        const std::string wanted = m_model == 1 ? "761.1" : "761";
        const std::string model = value.substr(0, value.find(' '));
        if (model != wanted && !(m_model == 0 && model == "761.2"))
            MTD_DLOG(Warning, "CmtdSPG761::get_all_system_values() - METER REPORTS MODEL '%s', CONFIGURED %s", model.c_str(), getMeterModelName());
        add("MeterModel", model);
        if (value.find(' ') != std::string::npos)
            add("Firmware", value.substr(value.find(' ') + 1));
    } else {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!",
                "Read Model");
    }
    int day = 0;
    if (readValue("Read Rate Day", value, unit) && parseInt(value, 1, 31, day))
        add("RateDay", value);
    else
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!",
                "Read Rate Day");
    int hour = 0;
    if (readValue("Read Rate Hour", value, unit) && parseInt(value, 0, 23, hour)) {
        m_rateHour = hour;
        add("RateHour", value);
    } else {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - WRONG RATE HOUR '%s' !!!", value.c_str());
    }
    if (sendRequest("Read Gas Composition")) {
        Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
        for (size_t i = 0; i < 3 && i + 1 < blocks.size(); ++i)
            if (!blocks[i + 1].empty() && parseNumber(blocks[i + 1][0]))
                add(kComposition[i].name, blocks[i + 1][0], kComposition[i].unit);
    } else {
        MTD_DLOG(Err, "CmtdSPG761::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!",
                "Read Gas Composition");
    }
    return out;
}

bool CmtdSPG761::deviceTime(time_t& t, std::string& text) {
    std::string date, time, unit;
    int d, mo, y, h, mi, s;
    char tail = 0;
    if (!readValue("Read Date", date, unit) || !readValue("Read Time", time, unit))
        return false;
    if (std::sscanf(date.c_str(), "%2d-%2d-%2d%c", &d, &mo, &y, &tail) != 3 ||
        std::sscanf(time.c_str(), "%2d-%2d-%2d%c", &h, &mi, &s, &tail) != 3 || d < 1 || d > 31 || mo < 1 || mo > 12 ||
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
    return archType == ARCH_HOURLY || archType == ARCH_DAILY || archType == ARCH_JOURNAL_EVENT;
}

void CmtdSPG761::get_arch_values(CArchiveSink& sink) {
    if (!readArchiveWindow(sink))
        throw CDisconnectException("archive transfer broken");
}

// Reads the window reply by reply. Interval records must sit on the archive's
// grid (whole hours; days at the contract hour), after the one before it and
// inside the window; a reply that breaks this ends the transfer before it, so
// that no record is stored past a hole the line made. Journal entries only
// must not go back in time; several may share a second, so the next request
// starts at the second of the last entry and what was had is not taken twice.
// A transfer broken between two entries of one second leaves the whole second
// to the next cycle (the sink holds it back).
bool CmtdSPG761::readArchiveWindow(CArchiveSink& sink) {
    const int archType = sink.type();
    const time_t from = sink.from();
    const time_t to = sink.to();
    const bool journal = archType == ARCH_JOURNAL_EVENT;
    const time_t period = archType == ARCH_HOURLY ? 3600 : 86400;
    const time_t gridOffset = archType == ARCH_DAILY ? static_cast<time_t>(m_rateHour < 0 ? 0 : m_rateHour) * 3600 : 0;
    const time_t tzShift = static_cast<time_t>(deviceTzHours()) * 3600;
    const char* request = journal ? "Read Event Journal"
                          : archType == ARCH_HOURLY ? "Read Hourly Archive" : "Read Daily Archive";
    const std::vector<const char*>& fields = journal ? kEventFields : kArchFields;
    time_t last = from - 1;
    std::vector<std::vector<std::string>> atLast;  // journal entries of the second `last`
    for (time_t start = from; start <= to;) {
        if (!sendRequest(request, protocolTimeArg(start), protocolTimeArg(to)))
            return false;
        Blocks blocks = splitBody(m_proto->reply(), m_proto->replyLength());
        if ((blocks.size() - 1) % 2 != 0) {
            MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BROKEN RECORD BLOCKS (%d) !!!",
                    static_cast<int>(blocks.size()));
            return false;
        }
        const size_t records = (blocks.size() - 1) / 2;
        bool advanced = false;
        for (size_t r = 0; r < records; ++r) {
            const auto& stamp = blocks[1 + 2 * r];
            const auto& values = blocks[2 + 2 * r];
            int d, mo, y, h, mi, s;
            bool good = stamp.size() == 6 && parseInt(stamp[0], 1, 31, d) && parseInt(stamp[1], 1, 12, mo) &&
                        parseInt(stamp[2], 2000, 2099, y) && parseInt(stamp[3], 0, 23, h) &&
                        parseInt(stamp[4], 0, 59, mi) && parseInt(stamp[5], 0, 59, s) && values.size() == fields.size();
            const time_t ts = good ? fromDeviceTime(y, mo, d, h, mi, s) : 0;
            const time_t onDevice = ts + tzShift;
            if (good && !journal)
                good = (onDevice - gridOffset) % period == 0 && ts > last;
            // Nothing may come from before the start asked for: a meter that
            // sent it would be asked the same again and again.
            if (!good || ts < last || ts < start) {
                MTD_DLOG(Err, "CmtdSPG761::get_arch_values() - BAD RECORD %d AFTER %d - TRANSFER ENDS !!!", static_cast<int>(ts), static_cast<int>(last));
                return false;
            }
            if (ts > to) {
                MTD_DLOG(Info, "CmtdSPG761::get_arch_values() - STOP BY TIME !!!");
                return true;
            }
            if (ts == last) {
                bool had = false;
                for (const auto& v : atLast)
                    had = had || v == values;
                if (had)
                    continue;
            } else {
                atLast.clear();
            }
            atLast.push_back(values);
            ArchiveRecord rec;
            rec.sys = m_pipe;
            rec.timestamp = ts;
            rec.fields.emplace_back("DateTime", deviceTimeText(ts));
            for (size_t i = 0; i < values.size(); ++i)
                rec.fields.emplace_back(fields[i], values[i]);
            sink.add(std::move(rec));
            advanced = advanced || ts > start || !journal;
            last = ts;
        }
        if (records == 0) {
            MTD_DLOG(Info, "CmtdSPG761::get_arch_values() - stop by device !!!");
            return true;
        }
        if (!sink.endBlock())
            return true;
        // A journal reply that brought nothing past its start second had the
        // whole reply at one second: go on after it rather than ask again.
        start = journal ? (advanced ? last : last + 1) : last + period;
    }
    return true;
}

void CmtdSPG761::writeGasPasport() {
    // Reading is all this connection does: the meter takes parameter writes
    // only with its database unlocked at the keyboard.
    refusePassport(getMeterModelName(), m_model);
}
