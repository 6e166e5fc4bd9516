// SPDX-License-Identifier: Apache-2.0
#include "drivers/ek2xx/CmtdEK2xxTC2xx.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "core/DataCodes.h"
#include "core/Exceptions.h"
#include "protocols/Crc16Arc.h"
#include "core/logger.h"
#include "transport/CConnector.h"

struct CmtdEK2xxTC2xx::SRequest {
    const char* name;
    uint32_t kind;
    const char* address;
    const char* argument;  // printf format of archive windows; "" otherwise
    Parser parser;         // nullptr: nothing to take from the reply
};

namespace {

using K = SGost61107Request;
using D = CmtdEK2xxTC2xx;

// Reads of the rest of an archive after a damaged record, in one call.
constexpr int kReadsAgain = 3;
// Blocks a journal transfer may take (far above what a journal holds), and
// the margin on top of the records a window can hold.
constexpr long kJournalBlocks = 2000;
constexpr long kBlockMargin = 10;

const char* const kEkArch = "3;%04d-%02d-%02d,%02d:00:00;%04d-%02d-%02d,%02d:00:00;1";
const char* const kTcHourly = "3;%d-%d-%d,%d:0:0;%d-%d-%d,%d:0:0;10";
const char* const kTcDaily = "3;%d-%d-%d,%0d:0:0;%d-%d-%d,%d:0:0;10";

#define P(f) &D::f
// The request table of EK260/EK270, in the order the driver uses it.
#define EK_COMMON_HEAD                                                          \
    {"Open Consumer Session", K::SignOn, "sign-on", "", P(parseIdent)},                \
    {"Ack Consumer Options", K::OptionSelect, "options", "", P(parseOptAck)},          \
    {"Check Consumer Lock", K::ReadR1, "4:170.0", "", P(parseConsumerLock)},    \
    {"Write Consumer Password", K::WriteW1, "4:171.0", "", P(parseConsumerAck)}

}  // namespace

const D::SRequest CmtdEK2xxTC2xx::kEkTable[] = {
    EK_COMMON_HEAD,
    {"Check Supplier Lock", K::ReadR1, "3:170.0", "", P(parseConsumerLock)},
    {"Write Supplier Password", K::WriteW1, "3:171.0", "", P(parseConsumerAck)},
    {"Close Session", K::Break, "break", "", nullptr},
    {"Read Serial Number", K::ReadR1, "1:180.0", "", P(parseResponse)},
    {"Read Meter Model", K::ReadR1, "1:181.0", "", P(parseResponse)},
    {"Read Rate Hour", K::ReadR1, "2:141.0", "", P(parseRateHour)},
    {"Read Firmware", K::ReadR1, "2:190.0", "", P(parseResponse)},
    {"Read Archive Period", K::ReadR1, "4:150.0", "", P(parseArchPeriod)},
    {"Read K Calculation Mode", K::ReadR1, "8:317.0", "", P(parseKcMode)},
    {"Read Date & Time", K::ReadR1, "1:400.0", "", P(parseResponse)},
    {"Read Std. Volume", K::ReadR1, "2:300.0", "", P(parseResponse)},
    {"Read Work Volume", K::ReadR1, "4:300.0", "", P(parseResponse)},
    {"Read Crash Std. Volume", K::ReadR1, "2:301.0", "", P(parseResponse)},
    {"Read Crash Work Volume", K::ReadR1, "4:301.0", "", P(parseResponse)},
    {"Read Sum Std. Volume", K::ReadR1, "2:302.0", "", P(parseResponse)},
    {"Read Sum Work Volume", K::ReadR1, "4:302.0", "", P(parseResponse)},
    {"Read Temperature", K::ReadR1, "6:310_1.0", "", P(parseResponse)},
    {"Read Pressure", K::ReadR1, "6:210.0", "", P(parseResponse)},
    {"Read Correction", K::ReadR1, "5:310.0", "", P(parseResponse)},
    {"Read Compresion", K::ReadR1, "8:310.0", "", P(parseResponse)},
    {"Read PassT", K::ReadR1, "6:314_1.0", "", P(parseResponse)},
    {"Read PassP", K::ReadR1, "7:314_1.0", "", P(parseResponse)},
    {"Read PassCO2", K::ReadR1, "11:314.0", "", P(parseResponse)},
    {"Read PassH2", K::ReadR1, "12:314.0", "", P(parseResponse)},
    {"Read PassN2", K::ReadR1, "14:314.0", "", P(parseResponse)},
    {"Read PassS", K::ReadR1, "13:314_1.0", "", P(parseResponse)},
    {"Read Hourly Headers", K::ReadR3, "3:V.2", "", P(parseHeaders)},
    {"Read Hourly Units", K::ReadR3, "3:V.3", "", P(parseUnits)},
    {"Read Hourly Data 1st", K::ReadR3, "3:V.0", kEkArch, P(parseArchBlock)},
    {"Read Hourly Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"Read Daily Headers", K::ReadR3, "7:V.2", "", P(parseHeaders)},
    {"Read Daily Units", K::ReadR3, "7:V.3", "", P(parseUnits)},
    {"Read Daily Data 1st", K::ReadR3, "7:V.0", kEkArch, P(parseArchBlock)},
    {"Read Daily Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"Read Events Headers", K::ReadR3, "4:V.2", "", P(parseHeaders)},
    {"Read Events Units", K::ReadR3, "4:V.3", "", P(parseUnits)},
    {"Read Events Data 1st", K::ReadR3, "4:V.0", kEkArch, P(parseArchBlock)},
    {"Read Events Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"Read Intervents Headers", K::ReadR3, "5:V.2", "", P(parseHeaders)},
    {"Read Intervents Units", K::ReadR3, "5:V.3", "", P(parseUnits)},
    {"Read Intervents Data 1st", K::ReadR3, "5:V.0", kEkArch, P(parseArchBlock)},
    {"Read Intervents Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"PassCO", K::WriteW1, "11:314.1", "", P(parseConsumerAck)},
    {"PassH2", K::WriteW1, "12:314.1", "", P(parseConsumerAck)},
    {"PassN2", K::WriteW1, "14:314.1", "", P(parseConsumerAck)},
    {"PassS", K::WriteW1, "13:314_1.1", "", P(parseConsumerAck)},
    {"PassP", K::WriteW1, "7:314_1.1", "", P(parseConsumerAck)},
    {"PassT", K::WriteW1, "6:314_1.1", "", P(parseConsumerAck)},
    {"PassDateTime", K::WriteW1, "1:314.1", "", P(parseConsumerAck)},
};

// TC2xx: no supplier lock, no passport writes, no sums, no K mode; one archive (3).
const D::SRequest CmtdEK2xxTC2xx::kTcTable[] = {
    EK_COMMON_HEAD,
    {"Close Session", K::Break, "break", "", nullptr},
    {"Read Serial Number", K::ReadR1, "1:180.0", "", P(parseResponse)},
    {"Read Meter Model", K::ReadR1, "1:181.0", "", P(parseResponse)},
    {"Read Rate Hour", K::ReadR1, "02:0141.0", "", P(parseRateHour)},
    {"Read Firmware", K::ReadR1, "2:190.0", "", P(parseResponse)},
    {"Read Archive Period", K::ReadR1, "4:150.0", "", P(parseArchPeriod)},
    {"Read Date & Time", K::ReadR1, "01:0400.0", "", P(parseResponse)},
    {"Read Std. Volume", K::ReadR1, "2:300.0", "", P(parseResponse)},
    {"Read Work Volume", K::ReadR1, "4:300.0", "", P(parseResponse)},
    {"Read Crash Std. Volume", K::ReadR1, "2:301.0", "", P(parseResponse)},
    {"Read Crash Work Volume", K::ReadR1, "4:301.0", "", P(parseResponse)},
    {"Read Temperature", K::ReadR1, "6:310_1.0", "", P(parseResponse)},
    {"Read Pressure", K::ReadR1, "7:311.0", "", P(parseResponse)},
    {"Read Correction", K::ReadR1, "5:310.0", "", P(parseResponse)},
    {"Read Compresion", K::ReadR1, "8:311.0", "", P(parseResponse)},
    {"Read PassT", K::ReadR1, "6:314_1.0", "", P(parseResponse)},
    {"Read PassP", K::ReadR1, "7:314_1.0", "", P(parseResponse)},
    {"Read PassCO2", K::ReadR1, "11:314.0", "", P(parseResponse)},
    {"Read PassH2", K::ReadR1, "12:314.0", "", P(parseResponse)},
    {"Read PassN2", K::ReadR1, "14:314.0", "", P(parseResponse)},
    {"Read PassS", K::ReadR1, "13:314_1.0", "", P(parseResponse)},
    {"Read Hourly Headers", K::ReadR3, "3:V.2", "", P(parseHeaders)},
    {"Read Hourly Units", K::ReadR3, "3:V.3", "", P(parseUnits)},
    {"Read Hourly Data 1st", K::ReadR3, "3:V.0", kTcHourly, P(parseArchBlock)},
    {"Read Hourly Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"Read Daily Headers", K::ReadR3, "3:V.2", "", P(parseHeaders)},
    {"Read Daily Units", K::ReadR3, "3:V.3", "", P(parseUnits)},
    {"Read Daily Data 1st", K::ReadR3, "3:V.0", kTcDaily, P(parseArchBlock)},
    {"Read Daily Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
    {"Read Events Headers", K::ReadR3, "4:V.2", "", P(parseHeaders)},
    {"Read Events Units", K::ReadR3, "4:V.3", "", P(parseUnits)},
    {"Read Events Data 1st", K::ReadR3, "4:V.0", kTcHourly, P(parseArchBlock)},
    {"Read Events Data Next", K::Acknowledge, "ack", "", P(parseArchBlock)},
};
#undef P
#undef EK_COMMON_HEAD

namespace {

// What the host service gets, in this order: the read, the published name and
// the unit of the value as published (pressures are converted to kgf/cm2).
using CurrentValue = gas::CurrentValue;
const CurrentValue kCurrent[] = {
    {"Read Std. Volume", "Vstd", DU_M3, false},        {"Read Work Volume", "Vw", DU_M3, false},
    {"Read Crash Std. Volume", "Vstd.crash", DU_M3, false}, {"Read Crash Work Volume", "Vw.crash", DU_M3, false},
    {"Read Sum Std. Volume", "Vstd.sum", DU_M3, false}, {"Read Sum Work Volume", "Vw.sum", DU_M3, false},
    {"Read Temperature", "T", DU_GRAD, false},          {"Read Pressure", "P", DU_KGF_CM2, true},
    {"Read Correction", "Kcorr", DU_UNKNOWN, false},    {"Read Compresion", "Kcomp", DU_UNKNOWN, false},
    {"Read PassT", "PassT", DU_GRAD, false},            {"Read PassP", "PassP", DU_KGF_CM2, true},
    {"Read PassCO2", "PassCO2", DU_PERCENT, false},     {"Read PassH2", "PassH2", DU_PERCENT, false},
    {"Read PassN2", "PassN2", DU_PERCENT, false},       {"Read PassS", "PassS", DU_KG_M3, false},
};

const std::vector<const char*> kEkIntervalFields = {
    "Npp", "ArchIdx", "DateTime", "Vstd", "Vstd.sum", "Vw.sum", "Kcomp", "Kcorr", "status 2", "status 4", "status 7",
    "status 6", "system status", "archiving reason", "check sum"};
const std::vector<const char*> kEkEventFields = {"Npp", "ArchIdx", "DateTime", "Event", "check sum"};
const std::vector<const char*> kTcIntervalFields = {"Npp", "DateTime", "Vstd", "Vstd.sum", "Vw.sum", "Kcorr",
                                                    "status 5", "status 6", "system status", "archiving reason",
                                                    "check sum"};

// Status-journal codes: bit 15 set when the message comes, clear when it goes;
// bits 8..14 the status register, bits 0..7 the message. The classification
// is by register and message. docs/ek2xx-events.md lists this table.
struct EventClass {
    uint16_t code;
    const char* event;
    bool intervention;
};
const EventClass kEventTable[] = {
    {0x0101, "restart", false},
    {0x0102, "temperature alarm", false},
    {0x0105, "pressure alarm", false},
    {0x0201, "pulse input fault", false},
    {0x0203, "flow above limit", false},
    {0x0401, "battery low", false},
    {0x0601, "supplier lock opened", true},
    {0x0702, "parameter changed", true},
    {0x0801, "calibration lock opened", true},
    {0x0908, "clock set", true},
};

// The unit of a pressure text, as a DataUnit (0 when unknown).
uint32_t pressureUnitCode(const std::string& unit) {
    if (unit == "MPa")
        return DU_MPA;
    if (unit == "kPa")
        return DU_KPA;
    if (unit == "atm")
        return DU_ATM_PHYS;
    if (unit == "bar")
        return DU_BAR;
    return DU_UNKNOWN;
}

std::string fmtNumber(double v) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.5f", v);
    return buf;
}

}  // namespace

CmtdEK2xxTC2xx::CmtdEK2xxTC2xx(int model) : m_model(model) {}

CmtdEK2xxTC2xx::~CmtdEK2xxTC2xx() {
    StopPolling();
}

const char* CmtdEK2xxTC2xx::getMeterModelName() const {
    switch (m_model) {
    case EK260: return "EK260";
    case EK270: return "EK270";
    case TC210: return "TC210";
    case TC215: return "TC215";
    case TC220: return "TC220";
    default:
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::getMeterModelName() - UNKNOWN METER MODEL %d !!!", m_model);
        return "unknown !!!";
    }
}

void CmtdEK2xxTC2xx::SaveConnector(CConnector* connector) {
    m_connector = connector;
    m_proto = connector ? std::make_unique<CGost61107>(*connector, logId(), driverName()) : nullptr;
}

const CmtdEK2xxTC2xx::SRequest* CmtdEK2xxTC2xx::findRequest(const std::string& name) const {
    if (isTc()) {
        for (const auto& row : kTcTable)
            if (name == row.name)
                return &row;
    } else {
        for (const auto& row : kEkTable)
            if (name == row.name)
                return &row;
    }
    return nullptr;
}

bool CmtdEK2xxTC2xx::sendRequest(const std::string& name, const std::string& data) {
    const SRequest* row = findRequest(name);
    if (!m_proto || !row || row->address[0] == '\0') {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::sendRequest('%s') - CAN'T SEND REQUEST BECAUSE IT ADDRESS IS EMPTY !!!", name.c_str());
        return false;
    }
    // Once stopping, and before the session is up, only what opens or ends a
    // session goes on the line: the other requests fail at once instead of
    // each waiting out its attempts on a meter that cannot answer them.
    const bool sessionRow = row->kind == K::SignOn || row->kind == K::OptionSelect || row->kind == K::Break;
    if (!sessionRow && (isStopping() || !m_signedOn)) {
        MTD_DLOG(Warning, "CmtdEK2xxTC2xx::sendRequest('%s') - %s, REQUEST NOT SENT",
                name.c_str(), isStopping() ? "STOPPING" : "NO SESSION");
        return false;
    }
    SGost61107Request request;
    request.name = row->name;
    request.kind = row->kind;
    request.data = data;
    if (row->kind == K::SignOn)
        request.address = m_address;
    else if (row->kind == K::ReadR1 || row->kind == K::ReadR3 || row->kind == K::WriteW1)
        request.address = row->address;
    if (row->kind == K::Break)
        m_proto->setExpectedReply(0, 0);  // the device does not answer a break
    if (!m_proto->SendRequest(request, m_reply))
        return false;
    return row->parser ? (this->*(row->parser))(m_proto->values()) : true;
}

bool CmtdEK2xxTC2xx::init() {
    MTD_DLOG(Info, "--- CmtdEK2xxTC2xx::init() -------------------------------------------");
    m_consumerPassword = m_config.password1.empty() ? m_config.password : m_config.password1;
    m_supplierPassword = m_config.password2;
    m_address = m_config.get("address");
    // A new session: nothing is known of it yet.
    m_signedOn = false;
    m_consumerLockState.clear();
    m_supplierLockState.clear();
    std::string systems = m_config.get("systems");
    m_sys = systems.substr(0, systems.find(';'));
    if (m_sys.empty())
        m_sys = "1";
    m_srvTZ = std::atoi(m_config.get("srv_TZ").c_str());
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - model %s, consumer password '%s', supplier password '%s'", getMeterModelName(), m_consumerPassword.c_str(), m_supplierPassword.c_str());
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - serial '%s', address '%s', systems %s",
            m_config.serial_text.c_str(), m_address.c_str(), systems.c_str());
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - srv_TZ = %d, pu_TZ = %d, dTZ = %d", m_srvTZ, deviceTzHours(),
            deviceTzHours() - m_srvTZ);
    const int configured = m_config.speed;
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - baud rate = %d, data rate = %d", configured, data_rate);
    if (m_model < EK260 || m_model > TC215) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::init() - UNKNOWN MODEL");
        return false;
    }
    if (!m_proto) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::init() - NO CONNECTOR");
        return false;
    }
    const int current = static_cast<int>(m_connector->settings().speed);
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - current baud rate = %d, configured baud rate = %d",
            current, configured);
    if (configured > 0 && !m_proto->ChangeBaudRate(configured)) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::init() - CAN'T SET INITIAL BAUD RATE");
        return false;
    }
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::init() - Handshake.Address = '%s'", m_address.c_str());
    if (!sendRequest("Open Consumer Session")) {
        // A line that was hung up (an adapter unplugged, a modem or a pseudo-
        // terminal gone) stays dead on the old descriptor: close it so the next
        // cycle opens the device node afresh.
        // The cycle ends at the device time, which cannot be read without a session.
        m_connector->close_device();
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::init() - NO ANSWER TO THE SIGN-ON");
        return false;
    }
    m_proto->setSpeedSymbol(m_deviceSpeed);
    if (!sendRequest("Ack Consumer Options")) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::init() - OPTIONS NOT ACKNOWLEDGED");
        return false;
    }
    m_signedOn = true;
    return session_open();
}

bool CmtdEK2xxTC2xx::session_open() {
    return openConsumerAccess();
}

void CmtdEK2xxTC2xx::session_close() {
    // Also after a sign-on that got no answer: the device may have heard it.
    if (m_proto && m_connector && m_connector->is_open()) {
        sendRequest("Close Session");
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::session_close() - break sent");
    }
    m_signedOn = false;
    m_consumerLockState.clear();
    m_supplierLockState.clear();
}

void CmtdEK2xxTC2xx::cycle_end() {
    // The break went out before the turn was given back (session_close).
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::cycle_end() - session closed");
}

bool CmtdEK2xxTC2xx::openConsumerAccess() {
    return openLock(false);
}

bool CmtdEK2xxTC2xx::openSupplierAccess() {
    return !isTc() && openLock(true);
}

bool CmtdEK2xxTC2xx::openLock(bool supplier) {
    std::string& state = supplier ? m_supplierLockState : m_consumerLockState;
    m_lockState.clear();
    const bool open = sendRequest(supplier ? "Check Supplier Lock" : "Check Consumer Lock");
    state = m_lockState;
    if (open)
        return true;
    // Only a lock the device reports closed gets the password: not one that
    // gave no answer, nor an error code.
    if (state != "0")
        return false;
    return sendRequest(supplier ? "Write Supplier Password" : "Write Consumer Password",
                       supplier ? m_supplierPassword : m_consumerPassword);
}

bool CmtdEK2xxTC2xx::parseIdent(const std::vector<std::string>&) {
    // "/XXXZ<model>" CR LF: Z is the highest speed the device offers.
    m_deviceSpeed = m_reply.size() > 4 && m_reply[4] >= '0' && m_reply[4] <= '6' ? static_cast<char>(m_reply[4]) : '5';
    std::string ident(m_reply.begin(), m_reply.end());
    while (!ident.empty() && (ident.back() == '\n' || ident.back() == '\r'))
        ident.pop_back();
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseIdent() - identification '%s', speed symbol '%c'", ident.c_str(), m_deviceSpeed);
    return true;
}

bool CmtdEK2xxTC2xx::parseOptAck(const std::vector<std::string>&) {
    const int current = static_cast<int>(m_connector->settings().speed);
    const int desired = m_proto->SpeedSymbolToBaudRate(m_deviceSpeed);
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseOptAck() - current baud rate = %d, desired baud rate = %d ('%c')", current, desired, m_deviceSpeed);
    if (!m_proto->ChangeBaudRate(m_deviceSpeed)) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseOptAck() - CAN'T SET REQUESTED BY DEVICE BAUD RATE");
        return false;
    }
    return true;
}

bool CmtdEK2xxTC2xx::parseConsumerLock(const std::vector<std::string>& values) {
    m_lockState = values.empty() ? std::string() : values[0];
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseConsumerLock() - lock status = '%s'",
            m_lockState.c_str());
    if (m_lockState == "1") {
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseConsumerLock() - access is allowed");
        return true;
    }
    MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseConsumerLock() - ACCESS IS DENIED !!!");
    return false;
}

bool CmtdEK2xxTC2xx::parseConsumerAck(const std::vector<std::string>&) {
    const uint8_t first = m_reply.empty() ? 0 : m_reply[0];
    if (first == CGost61107Connector::ACK) {
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseConsumerAck() - consumer lock is opened");
        return true;
    }
    MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseConsumerAck() - CAN'T OPEN CONSUMER LOCK !!! GET '%c' (0x%02X)", first >= 0x20 && first < 0x7F ? first : '.', first);
    return false;
}

bool CmtdEK2xxTC2xx::parseString(const std::string& text, std::string& value, std::string& unit) {
    size_t star = text.find('*');
    value = text.substr(0, star);
    unit = star == std::string::npos ? std::string() : text.substr(star + 1);
    if (!value.empty() && value[0] == '#') {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseString() - DEVICE RETURNS ERROR CODE '%s' !!!", value.c_str());
        return false;
    }
    return true;
}

bool CmtdEK2xxTC2xx::parseResponse(const std::vector<std::string>& values) {
    m_value.clear();
    m_unit.clear();
    if (values.empty())
        return false;
    return parseString(values[0], m_value, m_unit) && !m_value.empty();
}

bool CmtdEK2xxTC2xx::parseRateHour(const std::vector<std::string>& values) {
    if (!parseResponse(values))
        return false;
    char* end = nullptr;
    long h = std::strtol(m_value.c_str(), &end, 10);
    if (*end != '\0' || h < 0 || h > 23) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseRateHour() - WRONG RATE HOUR %d !!!",
                static_cast<int>(h));
        return false;
    }
    m_rateHour = static_cast<int>(h);
    return true;
}

bool CmtdEK2xxTC2xx::parseArchPeriod(const std::vector<std::string>& values) {
    if (!parseResponse(values))
        return false;
    char* end = nullptr;
    long minutes = std::strtol(m_value.c_str(), &end, 10);
    if (isTc()) {
        if (*end != '\0' || (minutes != 60 && minutes != 1440)) {
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArchPeriod() - TC2xx - UNSUPPORTED ARCHIVING PERIOD '%s'", m_value.c_str());
            return false;
        }
    } else if (*end != '\0' || minutes <= 0 || minutes > 1440) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArchPeriod() - WRONG ARCHIVING PERIOD %s MIN !!!", m_value.c_str());
        return false;
    }
    MTD_DLOG(Info, "CmtdEK2xxTC2xx::parseArchPeriod() - archiving period is %s min",
            m_value.c_str());
    m_archPeriodMin = static_cast<int>(minutes);
    return true;
}

bool CmtdEK2xxTC2xx::parseKcMode(const std::vector<std::string>& values) {
    if (!parseResponse(values))
        return false;
    m_kcMode = std::atoi(m_value.c_str());
    if (m_model == EK270) {
        m_hasPassport = m_kcMode == 2 || m_kcMode == 7;
        if (!m_hasPassport)
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseKcMode() - EK270 - NO GAS PASSPORT IN _KcMode = %d. Must be 2 or 7.", m_kcMode);
    } else {
        m_hasPassport = m_kcMode == 2 || m_kcMode == 1;
        if (!m_hasPassport)
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseKcMode() - EK260 - NO GAS PASSPORT IN _KcMode = %d. Must be 2 or 1.", m_kcMode);
    }
    return true;
}

std::vector<CValueRecord> CmtdEK2xxTC2xx::get_all_system_values() {
    MTD_DLOG(Info, "--- CmtdEK2xxTC2xx::get_all_system_values() ----------------------------");
    std::vector<CValueRecord> out;
    m_kcMode = -1;
    m_hasPassport = false;
    time_t now = 0;
    deviceTime(now);
    auto add = [&](const char* name, const std::string& value) {
        CValueRecord r;
        r.name = name;
        r.value = value;
        r.sys = m_sys;
        r.timestamp = now;
        out.push_back(r);
    };
    if (!sendRequest("Read Serial Number")) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_all_system_values() - CAN'T READ SERIAL NUMBER !!!");
    } else {
        const std::string given = m_config.serial_text.empty() ? m_config.true_serial : m_config.serial_text;
        if (!given.empty() && m_value != given) {
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_all_system_values() - READ SERIAL '%s' != GIVEN SERIAL '%s' !!! EXCEPTION WILL BE THROWN.", m_value.c_str(), given.c_str());
            throw CWrongPacketException("serial number mismatch");
        }
        add("SerialNumber", m_value);
    }
    struct Row {
        const char* request;
        const char* name;
    };
    std::vector<Row> rows = {{"Read Meter Model", "MeterModel"},
                             {"Read Rate Hour", "RateHour"},
                             {"Read Firmware", "Firmware"},
                             {"Read Archive Period", "ArchivePeriod"}};
    if (!isTc())
        rows.push_back({"Read K Calculation Mode", "KcMode"});
    for (const auto& row : rows) {
        if (sendRequest(row.request))
            add(row.name, m_value);
        else
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_all_system_values() - >>> CAN'T GET SYSTEM PARAMETER '%s' !!!", row.request);
    }
    return out;
}

bool CmtdEK2xxTC2xx::parseDateTime(const std::string& text, time_t& t) const {
    int y, mo, d, h, mi, s;
    char tail = 0;
    int n = std::sscanf(text.c_str(), "%d-%d-%d,%d:%d:%d%c", &y, &mo, &d, &h, &mi, &s, &tail);
    if ((n != 6 && !(n == 7 && tail == ',')) || mo < 1 || mo > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 ||
        mi > 59 || s < 0 || s > 60) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseDateTime() - CAN'T PARSE '%s'",
                text.c_str());
        return false;
    }
    t = fromDeviceTime(y, mo, d, h, mi, s);
    return true;
}

bool CmtdEK2xxTC2xx::deviceTime(time_t& t) {
    return sendRequest("Read Date & Time") && parseDateTime(m_value, t);
}

bool CmtdEK2xxTC2xx::GetTimestamps(time_t& deviceTimeOut, int& rateHour) {
    if (!deviceTime(deviceTimeOut)) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::GetTimestamps() - CAN'T GET CURRENT DATETIME, EXCEPTION IS THROWN !!!");
        throw CNoDateTimeException("device time");
    }
    if (m_rateHour < 0)
        sendRequest("Read Rate Hour");
    rateHour = m_rateHour < 0 ? 0 : m_rateHour;
    return true;
}

double CmtdEK2xxTC2xx::getPressureCoef(const std::string& unit) const {
    double factor = 0;
    uint32_t code = pressureUnitCode(unit);
    if (code == DU_UNKNOWN || !pressureFactor(code, factor)) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::getPressureCoef() - UNKNOWN PRESSURE UNIT '%s'",
                unit.c_str());
        return 0;
    }
    return factor;
}

double CmtdEK2xxTC2xx::fromAtmToPassP(double atm, int unit) const {
    double factor = 0;
    if (unit == DU_UNKNOWN || !pressureFactorInverse(static_cast<uint32_t>(unit), factor) || factor <= 0) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::fromAtmToPassP() - WRONG PassP UNIT %d !!!",
                unit);
        return -1;
    }
    return atm * factor;
}

std::vector<CValueRecord> CmtdEK2xxTC2xx::get_all_curtime_cur_integ_values() {
    MTD_DLOG(Info, "--- CmtdEK2xxTC2xx::get_all_curtime_cur_integ_values() -----------------");
    std::vector<CValueRecord> out;
    time_t now = 0;
    if (!deviceTime(now)) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_all_curtime_cur_integ_values() - CAN'T READ CURRENT TIME !!!");
        throw CNoDateTimeException("device time");
    }
    CValueRecord dt;
    dt.name = "DateTime";
    dt.value = m_value;
    dt.dim = "";
    dt.sys = m_sys;
    dt.timestamp = now;
    out.push_back(dt);
    for (const auto& cur : kCurrent) {
        if (!findRequest(cur.request))
            continue;  // the model has no such register
        if (!sendRequest(cur.request)) {
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::get_all_curtime_cur_integ_values() - >>> CAN'T GET CURRENT PARAMETER '%s'. SKIP IT !!!", cur.request);
            continue;
        }
        CValueRecord r;
        r.name = cur.name;
        r.value = m_value;
        r.dim = cur.unit == DU_UNKNOWN ? "" : dataUnitName(cur.unit);
        r.sys = m_sys;
        r.timestamp = now;
        if (cur.pressure) {
            double coef = getPressureCoef(m_unit);
            if (coef <= 0)
                continue;
            if (std::strcmp(cur.name, "PassP") == 0)
                m_passPUnit = static_cast<int>(pressureUnitCode(m_unit));
            r.value = fmtNumber(std::strtod(m_value.c_str(), nullptr) * coef);
        }
        out.push_back(r);
    }
    return out;
}

std::string CmtdEK2xxTC2xx::archArgument(const SRequest& row, time_t from, time_t to, bool) const {
    const struct tm a = toDeviceTime(from), b = toDeviceTime(to);
    char buf[128];
    std::snprintf(buf, sizeof buf, row.argument, a.tm_year + 1900, a.tm_mon + 1, a.tm_mday, a.tm_hour,
                  b.tm_year + 1900, b.tm_mon + 1, b.tm_mday, b.tm_hour);
    return buf;
}

bool CmtdEK2xxTC2xx::hasArchive(int archType) const {
    return archType == ARCH_HOURLY || archType == ARCH_DAILY || archType == ARCH_JOURNAL_EVENT;
}

void CmtdEK2xxTC2xx::get_arch_values(CArchiveSink& sink) {
    const int archType = sink.type();
    const char* kind = archType == ARCH_HOURLY ? "Hourly" : archType == ARCH_DAILY ? "Daily" : "Events";
    if (isTc() && archType != ARCH_JOURNAL_EVENT && m_archPeriodMin != (archType == ARCH_HOURLY ? 60 : 1440)) {
        MTD_DLOG(Warning, "CmtdEK2xxTC2xx::get_arch_values() - TC2xx - UNSUPPORTED ARCHIVING PERIOD '%d'", m_archPeriodMin);
        return;
    }
    const time_t from = sink.from();
    const time_t to = sink.to();

    m_events = archType == ARCH_JOURNAL_EVENT;
    m_fields = m_events ? &kEkEventFields : isTc() ? &kTcIntervalFields : &kEkIntervalFields;
    const std::string prefix = std::string("Read ") + kind;
    // A device without this archive (it answers with an error code, or not at
    // all) costs this archive only: the cycle goes on to the next one.
    if (!sendRequest(prefix + " Headers")) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_arch_values() - CAN'T READ %s HEADERS, ARCHIVE SKIPPED !!!",
                archTypeName(archType));
        return;
    }
    if (m_headerCount != m_fields->size()) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_arch_values() - REAL HEADERS COUNT %d DOESN'T MATCH DATA RECORDS GIVEN COUNT %d !!!", static_cast<int>(m_headerCount), static_cast<int>(m_fields->size()));
        return;
    }
    if (!sendRequest(prefix + " Units"))
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::get_arch_values() - this archive doen't support units !!!");

    m_from = from;
    m_to = to;
    m_lastRecord = 0;
    m_taken = 0;
    m_sink = &sink;
    m_archType = archType;
    m_damaged = false;
    m_period = m_events ? 0 : archType == ARCH_DAILY && !isTc() ? 86400 : (m_archPeriodMin > 0 ? m_archPeriodMin : 60) * 60;
    m_hasIdx = (*m_fields)[1] == std::string("ArchIdx");
    // Without record numbers (TC2xx) the sink finds a hole by the period.
    sink.setInterval(m_hasIdx ? 0 : m_period);
    // A meter that keeps ending blocks with EOT would be acknowledged for ever:
    // no transfer takes more blocks than its window holds records, and a margin.
    const long blockLimit = (m_events ? kJournalBlocks : static_cast<long>((to - from) / m_period) + 1) + kBlockMargin;
    const SRequest* first = findRequest(prefix + " Data 1st");
    bool ok = sendRequest(prefix + " Data 1st", archArgument(*first, from, to, archType == ARCH_DAILY));
    bool bounded = false;
    for (int again = 0;;) {
        long blocks = 1;
        while (ok && !m_damaged && isNextRequest(to)) {
            if (++blocks > blockLimit) {
                MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_arch_values() - MORE THAN %ld BLOCKS FOR THIS WINDOW - TRANSFER STOPPED !!!", blockLimit);
                bounded = true;
                break;
            }
            if (!sink.endBlock())
                break;
            ok = sendRequest(prefix + " Data Next");
        }
        if (bounded || isStopping() || (ok && !m_damaged) || ++again > kReadsAgain)
            break;
        // A block that did not come whole even after NAK, a damaged record or
        // a hole in the record numbers: ask again from the last good record.
        // Journal entries may share a second, so that second is asked again
        // too; the records already here are known by their numbers.
        m_damaged = false;
        if (m_lastRecord != 0)
            m_from = m_events ? m_lastRecord : m_lastRecord + 1;
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::get_arch_values() - read again from %d",
                static_cast<int>(m_from));
        ok = sendRequest(prefix + " Data 1st", archArgument(*first, m_from, to, archType == ARCH_DAILY));
    }
    m_sink = nullptr;
    if ((ok && !m_damaged && !bounded) || (isStopping() && !bounded)) {
        // A stop between blocks, or one that refused the next block's request,
        // ends the transfer where it is: what came whole is kept.
        if (isStopping())
            sink.interrupted();
        return;
    }
    // Keep what came whole, up to the last good record, and let the cycle go
    // on; the next read starts after it.
    MTD_DLOG(Err, "CmtdEK2xxTC2xx::get_arch_values() - ARCHIVE TRANSFER BROKEN - KEEP %d RECORDS UP TO %d !!!", static_cast<int>(m_taken), static_cast<int>(m_lastRecord));
    sink.interrupted();
}

bool CmtdEK2xxTC2xx::isNextRequest(time_t to) {
    if (m_lastRecord > to) {
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::isNextRequest() - STOP BY TIME !!!");
        return false;
    }
    const size_t end = m_reply.size() - (m_proto->replyHasBcc() ? 1 : 0);
    if (end == 0 || m_reply[end - 1] != CGost61107Connector::EOT) {
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::isNextRequest() - stop by device !!!");
        return false;
    }
    if (isStopping()) {
        MTD_DLOG(Info, "CmtdEK2xxTC2xx::isNextRequest() - stop requested between blocks");
        return false;
    }
    MTD_DLOG(Debug, "CmtdEK2xxTC2xx::isNextRequest() - send next ACK ...");
    return true;
}

bool CmtdEK2xxTC2xx::parseHeaders(const std::vector<std::string>& values) {
    m_headerCount = values.size();
    return !values.empty() && values[0].compare(0, 1, "#") != 0;
}

bool CmtdEK2xxTC2xx::parseUnits(const std::vector<std::string>& values) {
    return !values.empty() && values[0].compare(0, 1, "#") != 0;
}

bool CmtdEK2xxTC2xx::parseArchBlock(const std::vector<std::string>&) {
    // One record per line; the line is split again so a damaged line costs one record.
    std::string text(m_reply.begin(), m_reply.end() - (m_proto->replyHasBcc() ? 1 : 0));
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        size_t open = line.find('(');
        size_t close = line.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close < open)
            continue;
        line = line.substr(open, close - open + 1);
        std::vector<std::string> values;
        bool good = true;
        for (size_t i = 0; i < line.size() && good;) {
            if (line[i] != '(') {
                good = false;
                break;
            }
            size_t c = line.find(')', i);
            if (c == std::string::npos || line.find('(', i + 1) < c) {
                good = false;
                break;
            }
            values.push_back(line.substr(i + 1, c - i - 1));
            i = c + 1;
        }
        if (!good || values.size() != m_fields->size()) {
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArch() - BAD RECORD '%.32s' - SKIP THIS RECORD !!!", line.c_str());
            if (endTransferAtDamage())
                return true;
            continue;
        }
        // The check sum covers the text up to the ")" before it.
        std::string covered = line.substr(0, line.rfind('('));
        if (Crc16Arc::hex(covered) != values.back()) {
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArch() - BAD CRC '%s' - SKIP THIS RECORD !!!", values.back().c_str());
            if (endTransferAtDamage())
                return true;
            continue;
        }
        MTD_DLOG(Debug, "CmtdEK2xxTC2xx::parseArch() - CRC Ok");
        if (!parseArch(values) && m_damaged)
            return true;
    }
    return true;
}

// Blocks that start with STX carry no checked BCC, so a byte lost or changed on
// the line shows only here, as a record that fails its own check. Skipping it
// while storing the records after it would leave a hole for good: the stored
// timestamp moves past it. So the transfer ends before it and the rest is
// asked for again from the last good record (get_arch_values), in this call a
// few times, else in the next cycle. Only a record damaged at the same place
// in three transfers running (damaged in the meter itself) is skipped.
bool CmtdEK2xxTC2xx::endTransferAtDamage() {
    constexpr int kDamagedTransfers = 3;
    const time_t after = m_lastRecord != 0 ? m_lastRecord : m_from - 1;
    if (m_damagedArch == m_archType && m_damagedAfter == after) {
        ++m_damagedTimes;
    } else {
        m_damagedArch = m_archType;
        m_damagedAfter = after;
        m_damagedTimes = 1;
    }
    if (m_damagedTimes >= kDamagedTransfers) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArch() - RECORD AFTER %d DAMAGED %d TIMES - SKIPPED FOR GOOD !!!", static_cast<int>(after), m_damagedTimes);
        m_damagedAfter = -1;
        m_sink->resync();  // the next record may follow the skipped one
        return false;
    }
    MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseArch() - DAMAGED RECORD AFTER %d - READ AGAIN FROM THERE", static_cast<int>(after));
    m_damaged = true;
    return true;
}

bool CmtdEK2xxTC2xx::parseArch(const std::vector<std::string>& values) {
    ArchiveRecord rec;
    rec.sys = std::atoi(m_sys.c_str()) > 0 ? std::atoi(m_sys.c_str()) : 1;
    time_t ts = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        const char* field = (*m_fields)[i];
        if (!values[i].empty() && values[i][0] == '#')
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseArch() - GET ERROR CODE INSTEAD OF FIELD VALUE '%s' !!!", field);
        if (std::strcmp(field, "DateTime") == 0 && !parseDateTime(values[i], ts))
            return false;
        rec.fields.emplace_back(field, values[i]);
    }
    const char* numberText = values[m_hasIdx ? 1 : 0].c_str();
    char* numEnd = nullptr;
    const long long number = std::strtoll(numberText, &numEnd, 10);
    if (*numberText == '\0' || *numEnd != '\0') {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArch() - BAD RECORD NUMBER '%s' !!!", numberText);
        return !endTransferAtDamage();
    }
    rec.timestamp = ts;
    if (m_events) {
        const std::string& code = values[3];
        char* end = nullptr;
        unsigned long n = std::strtoul(code.c_str(), &end, 16);
        if (code.empty() || *end != '\0' || n > 0xFFFF) {
            // Kept with its code as the meter gave it: a journal entry the
            // meter holds is never left out.
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::parseArch() - WRONG EVENT CODE = '%s' !!!", code.c_str());
            rec.fields.emplace_back("event", "unknown");
            rec.fields.emplace_back("state", "unknown");
            rec.fields.emplace_back("intervention", "0");
            return take(std::move(rec), number);
        }
        const EventClass* found = nullptr;
        for (const auto& e : kEventTable)
            if (e.code == (n & 0x7FFF))
                found = &e;
        if (!found) {
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseArch() - UNKNOWN EVENT CODE '%s' = '%s' (0x%04x) !!!", "Event", code.c_str(), static_cast<unsigned>(n));
        }
        rec.fields.emplace_back("event", found ? found->event : "unknown");
        rec.fields.emplace_back("state", (n & 0x8000) ? "on" : "off");
        rec.fields.emplace_back("intervention", found && found->intervention ? "1" : "0");
    }
    return take(std::move(rec), number);
}

// Records carry consecutive numbers where the model has an archive index
// (ArchIdx), interval archives a fixed period: a jump means records were lost
// on the way (the sink tells), a number seen already a block the meter sent
// again.
bool CmtdEK2xxTC2xx::take(ArchiveRecord rec, long long number) {
    if (!m_sink)
        return true;
    const time_t ts = static_cast<time_t>(rec.timestamp);
    CArchiveSink::Verdict verdict = m_sink->add(rec, m_hasIdx ? number : -1);
    if (verdict == CArchiveSink::Gap) {
        MTD_DLOG(Warning, "CmtdEK2xxTC2xx::parseArch() - HOLE IN THE ARCHIVE BEFORE RECORD %lld (%d) !!!", number, static_cast<int>(ts));
        if (endTransferAtDamage())
            return false;
        verdict = m_sink->add(std::move(rec), m_hasIdx ? number : -1);
    }
    m_lastRecord = m_sink->lastTime();
    const bool outside = ts < m_sink->from() || ts > m_sink->to();
    if (verdict == CArchiveSink::Taken)
        ++m_taken;
    else if (verdict == CArchiveSink::Skipped && !outside)
        MTD_DLOG(Debug, "CmtdEK2xxTC2xx::parseArch() - record %lld is here already. Skip it.", number);
    else if (outside)
        MTD_DLOG(Debug, "CmtdEK2xxTC2xx::parseArch() - record timestamp %d is out of %d...%d. Skip it.",
                 static_cast<int>(ts), static_cast<int>(m_sink->from()), static_cast<int>(m_sink->to()));
    return true;
}

void CmtdEK2xxTC2xx::writeGasPasport() {
    std::map<std::string, std::string> values;
    if (!GetGasPassportParams(values))
        return;
    MTD_DLOG(Info, "--- CmtdEK2xxTC2xx::writeGasPasport() ----------------------------------");
    // In a K calculation mode without gas analysis the device does not use the
    // passport: nothing is written (the request file is gone all the same).
    if (!isTc() && !m_hasPassport) {
        if (m_model == EK270)
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - EK270 - NO GAS PASSPORT IN _KcMode = %d. Must be 2 or 7.", m_kcMode);
        else
            MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - EK260 - NO GAS PASSPORT IN _KcMode = %d. Must be 2 or 1.", m_kcMode);
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - ERROR! CAN'T WRITE GAS PASSPORT !!!");
        return;
    }
    if (isTc() || !openSupplierAccess()) {
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - CAN'T OPEN SUPPLIER LOCK");
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - ERROR! CAN'T WRITE GAS PASSPORT !!!");
        return;
    }
    if (m_passPUnit == 0 && values.count("PassP") && sendRequest("Read PassP"))
        m_passPUnit = static_cast<int>(pressureUnitCode(m_unit));
    int written = 0;
    for (const auto& kv : values) {
        std::string name = kv.first == "PassCO2" ? "PassCO" : kv.first;
        std::string value = kv.second;
        if (name == "PassP") {
            double p = fromAtmToPassP(std::strtod(value.c_str(), nullptr), m_passPUnit);
            if (p < 0)
                continue;
            value = fmtNumber(p);
        }
        const SRequest* row = findRequest(name);
        if (row && row->kind == K::WriteW1 && sendRequest(name, value)) {
            ++written;
        } else {
            MTD_DLOG(Warning, "CmtdEK2xxTC2xx::writeGasPasport() - WARNING! CAN'T WRITE PARAM '%s' !!!",
                    kv.first.c_str());
        }
    }
    if (written == 0)
        MTD_DLOG(Err, "CmtdEK2xxTC2xx::writeGasPasport() - ERROR! CAN'T WRITE GAS PASSPORT !!!");
}
