// SPDX-License-Identifier: Apache-2.0
#include "tools/metersim/CMeterSim.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tools/simline/SimChecks.h"
#include "tools/simline/SimTime.h"

namespace {

constexpr char SOH = 0x01, STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15;

// Error codes the device puts in place of a value.
const char* const kErrInjected = "#0001";
const char* const kErrLocked = "#0004";
const char* const kErrUnknown = "#0005";
const char* const kErrNoUnits = "#0013";
const char* const kErrPassword = "#0018";

// Status-journal codes: 0x8000 set when a message comes, register in the
// high byte, message number in the low byte. Registers 3 and 10 hold messages
// a reader may not know: they must still come through as entries.
const char* const kEventCodes[] = {"0x8102", "0x0102", "0x8105", "0x0105", "0x8201", "0x0201", "0x8203",
                                   "0x0203", "0x8401", "0x0401", "0x8702", "0x0702", "0x8801", "0x0801",
                                   "0x8908", "0x0908", "0x8304", "0x0304", "0x8A03", "0x0A03"};
// What a journal entry shows when its code cannot be read as a number.
const char* const kOddEventCode = "0x8G01";

// CRC-16/ARC: polynomial 0x8005 reflected (0xA001), initial value 0, no final XOR.
std::string crcArc(const std::string& text) {
    uint16_t crc = 0;
    for (unsigned char c : text) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04X", crc);
    return buf;
}

std::string fmtTime(std::time_t t) {
    struct tm tm {};
    gmtime_r(&t, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d,%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

bool parseTime(const std::string& text, std::time_t& out) {
    struct tm tm {};
    int y, mo, d, h, mi, s;
    if (std::sscanf(text.c_str(), "%d-%d-%d,%d:%d:%d", &y, &mo, &d, &h, &mi, &s) != 6)
        return false;
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    out = timegm(&tm);
    return true;
}

std::string fmt(const char* f, double v) {
    char buf[48];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
}

char xorBcc(const std::string& bytes, size_t from, size_t to) {
    char x = 0;
    for (size_t i = from; i < to; ++i)
        x ^= bytes[i];
    return x;
}

int symbolRate(char symbol) {
    static const int rates[] = {300, 600, 1200, 2400, 4800, 9600, 19200};
    return (symbol >= '0' && symbol <= '6') ? rates[symbol - '0'] : 0;
}

// Pressure given in bar, shown in the device's unit.
double pressureIn(const std::string& unit, double bar) {
    if (unit == "MPa")
        return bar / 10.0;
    if (unit == "kPa")
        return bar * 100.0;
    if (unit == "atm")
        return bar / 1.01325;
    return bar;
}

std::string record(std::vector<std::string> fields) {
    std::string text;
    for (const auto& f : fields)
        text += "(" + f + ")";
    return text + "(" + crcArc(text) + ")";
}

struct Register {
    std::string address, value, unit;
};

}  // namespace

CMeterSim::CMeterSim(SMeterSimConfig config, Reporter reporter)
    : m_cfg(std::move(config)), m_reporter(std::move(reporter)), m_faults(m_cfg.faultSeed, m_cfg.faultShare) {
    m_clockStart = m_cfg.now != 0 ? m_cfg.now : std::time(nullptr);
    m_steadyStart = std::chrono::steady_clock::now();
    m_baud = m_cfg.baud;
    if (m_cfg.maker.size() != 3)
        m_cfg.maker = (m_cfg.maker + "XXX").substr(0, 3);
}

CMeterSim::~CMeterSim() {
    stop();
    if (!m_link.empty())
        ::unlink(m_link.c_str());
}

bool CMeterSim::isTc() const {
    return m_cfg.model.compare(0, 2, "TC") == 0;
}

std::time_t CMeterSim::deviceNow() const {
    return simDeviceTime(m_clockStart, m_steadyStart, m_cfg.clockScale);
}

std::string CMeterSim::slavePath() const {
    std::lock_guard<std::mutex> lock(m_lineMutex);
    return m_line ? m_line->slavePath() : std::string();
}

int CMeterSim::masterFd() const {
    std::lock_guard<std::mutex> lock(m_lineMutex);
    return m_line ? m_line->fd() : -1;
}

void CMeterSim::report(const std::string& line) {
    if (m_reporter)
        m_reporter(line);
}

bool CMeterSim::open(const std::string& link) {
    m_link = link;
    return openPty();
}

bool CMeterSim::openPty() {
    CSimLine::Options options;
    options.baud = m_cfg.baud;
    options.frameBits = m_cfg.frameBits;
    options.timing = m_cfg.timing;
    options.link = m_link;
    auto line = std::make_unique<CSimLine>(options);
    if (!line->open())
        return false;
    std::string name = line->slavePath();
    {
        std::lock_guard<std::mutex> lock(m_lineMutex);
        m_line = std::move(line);
        if (m_stopping)
            m_line->stop();
    }
    m_baud = m_cfg.baud;
    report("pty " + name);
    return true;
}

bool CMeterSim::start() {
    if (m_thread.joinable() || !m_line)
        return false;
    m_thread = std::thread([this] { serve(); });
    return true;
}

void CMeterSim::stop() {
    m_stopping = true;
    {
        std::lock_guard<std::mutex> lock(m_lineMutex);
        if (m_line)
            m_line->stop();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void CMeterSim::setLineSpeed(int baud) {
    m_baud = baud;
    m_line->setBaud(baud);
}

void CMeterSim::hangup() {
    // The old line goes with its slave side: the daemon's descriptor sees the hang-up.
    {
        std::lock_guard<std::mutex> lock(m_lineMutex);
        m_line.reset();
    }
    m_state = State::Idle;
    m_pending.clear();
    m_lastBlock.clear();
    m_inArchive = false;
    openPty();
}

void CMeterSim::serve() {
    std::string in;
    bool ackWait = false;
    auto ackDeadline = std::chrono::steady_clock::now();
    for (;;) {
        int timeout = -1;
        if (ackWait) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(ackDeadline -
                                                                              std::chrono::steady_clock::now());
            timeout = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        uint8_t buf[512];
        ssize_t n = m_line->read(buf, sizeof buf, timeout);
        if (n < 0 || m_line->stopped())
            return;
        if (n > 0)
            in.append(reinterpret_cast<const char*>(buf), static_cast<size_t>(n));
        bool ackExpired = ackWait && std::chrono::steady_clock::now() >= ackDeadline;
        ackWait = false;
        // Take whole frames off the input; noise and wake-up fill bytes are dropped.
        while (!in.empty()) {
            char c = in[0];
            if (c == '/') {
                size_t end = in.find('\n');
                if (end == std::string::npos) {
                    if (in.size() > 256)
                        in.erase(0, 1);
                    else
                        break;
                    continue;
                }
                std::string frame = in.substr(0, end + 1);
                in.erase(0, end + 1);
                handle(frame);
            } else if (c == SOH) {
                size_t end = in.find(ETX, 1);
                if (end == std::string::npos || end + 1 >= in.size()) {
                    if (in.size() > 1024)
                        in.erase(0, 1);
                    else
                        break;
                    continue;
                }
                std::string frame = in.substr(0, end + 2);
                in.erase(0, end + 2);
                handle(frame);
            } else if (c == NAK) {
                in.erase(0, 1);
                handle(std::string(1, NAK));
            } else if (c == ACK) {
                if (in.size() == 1 && m_inArchive) {
                    // Inside a transfer a lone ACK can only ask for the next block.
                    in.erase(0, 1);
                    handle(std::string(1, ACK));
                    continue;
                }
                if (in.size() == 1 && !ackExpired) {
                    // A bare ACK (next block) or the start of an option select: wait a moment.
                    ackWait = true;
                    ackDeadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
                    break;
                }
                if (in.size() > 1 && in[1] == '0') {
                    size_t end = in.find('\n');
                    if (end == std::string::npos) {
                        if (ackExpired || in.size() > 16) {
                            in.erase(0, 1);
                            continue;
                        }
                        ackWait = true;
                        ackDeadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
                        break;
                    }
                    std::string frame = in.substr(0, end + 1);
                    in.erase(0, end + 1);
                    handle(frame);
                } else {
                    in.erase(0, 1);
                    handle(std::string(1, ACK));
                }
            } else {
                in.erase(0, 1);
            }
            if (!m_line || m_line->stopped())
                return;
        }
    }
}

void CMeterSim::handle(const std::string& frame) {
    int n = ++m_requests;
    if (m_cfg.silentAfter > 0 && n == m_cfg.silentAfter + 1 && m_silentLeft < 0)
        m_silentLeft = m_cfg.silentCount > 0 ? m_cfg.silentCount : -2;
    if (m_silentLeft == -2)
        return;
    if (m_silentLeft > 0) {
        --m_silentLeft;
        return;
    }
    const bool blockRequest = frame.size() == 1 && !m_lastBlock.empty();
    m_fault = m_faults.draw();
    auto fixed = blockRequest ? m_cfg.blockFaults.find(m_blocksSent + 1) : m_cfg.blockFaults.end();
    if (fixed != m_cfg.blockFaults.end() && fixed->second == CLineFaults::IgnoredRequest) {
        m_cfg.blockFaults.erase(fixed);
        return;
    }
    if (m_fault == CLineFaults::IgnoredRequest)
        return;  // garbled on the line: the meter never heard it
    if (frame.size() == 1 && frame[0] == NAK) {
        // The master missed the last block: the same block again.
        if (!m_lastBlock.empty()) {
            ++m_blocksSent;
            send(m_lastBlock, true);
        }
        return;
    }
    if (frame[0] == '/')
        handleSignOn(frame);
    else if (frame[0] == SOH)
        handleCommand(frame);
    else if (frame.size() > 1)
        handleOption(frame);
    else if (m_inArchive && !m_pending.empty())
        sendBlock();
}

void CMeterSim::handleSignOn(const std::string& frame) {
    size_t bang = frame.find('!');
    if (frame.size() < 3 || frame[1] != '?' || bang == std::string::npos)
        return;
    std::string address = frame.substr(2, bang - 2);
    // Several addresses ("1,2") let one simulator answer for the meters of a multi-drop line.
    if (!address.empty() && !m_cfg.address.empty() &&
        ("," + m_cfg.address + ",").find("," + address + ",") == std::string::npos)
        return;  // another meter on the bus
    m_state = State::SignedOn;
    m_consumerOpen = m_supplierOpen = false;
    m_pending.clear();
    m_lastBlock.clear();
    m_inArchive = false;
    setLineSpeed(m_cfg.baud);
    send("/" + m_cfg.maker + m_cfg.maxSpeedSymbol + m_cfg.model + "\r\n");
}

void CMeterSim::handleOption(const std::string& frame) {
    // ACK '0' <speed symbol> <mode> CR LF
    if (m_state != State::SignedOn || frame.size() < 6)
        return;
    int rate = symbolRate(frame[2]);
    if (rate == 0 || frame[2] > m_cfg.maxSpeedSymbol) {
        send(std::string(1, NAK));
        return;
    }
    std::string reply = std::string(1, SOH) + "P0" + STX + "(" + m_cfg.serial + ")" + ETX;
    reply += xorBcc(reply, 1, reply.size());
    send(reply);
    setLineSpeed(rate);
    m_state = State::Programming;
}

void CMeterSim::handleCommand(const std::string& frame) {
    // SOH C D STX address ( data ) ETX BCC   or   SOH B 0 ETX BCC
    size_t etx = frame.size() - 2;
    if (frame.size() < 5 || xorBcc(frame, 1, etx + 1) != frame.back()) {
        send(std::string(1, NAK));
        return;
    }
    std::string cmd = frame.substr(1, 2);
    if (cmd == "B0") {
        ++m_breaks;
        m_state = State::Idle;
        m_consumerOpen = m_supplierOpen = false;
        m_pending.clear();
        m_inArchive = false;
        setLineSpeed(m_cfg.baud);
        return;
    }
    if (m_state != State::Programming)
        return;
    size_t open = frame.find('(');
    size_t close = frame.rfind(')');
    if (frame[3] != STX || open == std::string::npos || close == std::string::npos || close < open) {
        send(std::string(1, NAK));
        return;
    }
    std::string address = frame.substr(4, open - 4);
    std::string data = frame.substr(open + 1, close - open - 1);
    m_inArchive = false;
    m_pending.clear();
    m_lastBlock.clear();
    if (cmd == "R1" || cmd == "R3") {
        if (address.find(":V.") != std::string::npos && !m_cfg.errorRegisters.count(address)) {
            handleArchive(cmd[1], address, data);
            return;
        }
        std::string value = m_cfg.errorRegisters.count(address) ? kErrInjected : readRegister(address, true);
        sendData(address + "(" + value + ")", true);
    } else if (cmd == "W1") {
        std::string error;
        if (writeRegister(address, data, error)) {
            report("W1 " + address + "(" + data + ")");
            send(std::string(1, ACK));
        } else {
            sendData(address + "(" + error + ")", true);
        }
    } else {
        send(std::string(1, NAK));
    }
}

void CMeterSim::handleArchive(char, const std::string& address, const std::string& data) {
    int archive = std::atoi(address.c_str());
    std::string column = address.substr(address.find(":V.") + 3);
    bool interval = archive == 3, daily = archive == 7 && !isTc();
    bool events = archive == 4, interventions = archive == 5;
    if (!interval && !daily && !events && !interventions) {
        sendData(std::string("(") + kErrUnknown + ")", true);
        return;
    }
    std::vector<std::string> heads, units;
    if (events) {
        heads = {"GONo", "AONo", "Time", "Event", "Check"};
    } else if (interventions) {
        heads = {"GONo", "AONo", "Time", "Addr", "Old", "New", "St", "Nr", "Check"};
    } else if (isTc()) {
        heads = {"GONo", "Time", "Vb", "VbT", "VmT", "C", "St.5", "St.6", "StSy", "Er", "Check"};
        units = {"", "", "m3", "m3", "m3", "", "", "", "", "", ""};
    } else {
        heads = {"GONo", "AONo", "Time", "Vb", "VbT", "VmT", "Z", "K", "St.2", "St.4", "St.7", "St.6", "StSy", "Er",
                 "Check"};
        units = {"", "", "", "m3", "m3", "m3", "", "", "", "", "", "", "", "", ""};
    }
    auto list = [](const std::vector<std::string>& v) {
        std::string s;
        for (const auto& x : v)
            s += "(" + x + ")";
        return s;
    };
    if (column == "2") {
        sendData(list(heads), true);
    } else if (column == "3") {
        sendData(units.empty() ? std::string("(") + kErrNoUnits + ")" : list(units), true);
    } else if (column == "0") {
        // "<column>;<from>;<to>;<records per block>"
        std::vector<std::string> parts;
        size_t start = 0;
        for (size_t semi; (semi = data.find(';', start)) != std::string::npos; start = semi + 1)
            parts.push_back(data.substr(start, semi - start));
        parts.push_back(data.substr(start));
        std::time_t from = 0, to = 0;
        if (parts.size() < 3 || !parseTime(parts[1], from) || !parseTime(parts[2], to)) {
            sendData(std::string("(") + kErrUnknown + ")", true);
            return;
        }
        int per = parts.size() > 3 ? std::atoi(parts[3].c_str()) : 0;
        m_perBlock = per > 0 ? static_cast<size_t>(per > 100 ? 100 : per) : 10;
        m_pending = archiveRecords(archive, from, to);
        m_inArchive = true;
        sendBlock();
    } else {
        sendData(std::string("(") + kErrUnknown + ")", true);
    }
}

void CMeterSim::sendBlock() {
    auto twice = m_cfg.blockFaults.find(m_blocksSent + 1);
    if (twice != m_cfg.blockFaults.end() && twice->second == SMeterSimConfig::kHeardTwice) {
        // An echo on a two-wire line: the meter took the request twice and the
        // block for the first one is gone without a trace.
        m_cfg.blockFaults.erase(twice);
        size_t skip = std::min(m_pending.size() > 1 ? m_pending.size() - 1 : 0, m_perBlock);
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<long>(skip));
        ++m_blocksSent;
    }
    std::string body;
    size_t n = m_pending.size() < m_perBlock ? m_pending.size() : m_perBlock;
    if (m_cfg.endlessArchive && n == m_pending.size() && n > 0)
        m_pending.push_back(m_pending.back());  // never the last block
    for (size_t i = 0; i < n; ++i)
        body += m_pending[i] + "\r\n";
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<long>(n));
    bool last = m_pending.empty();
    m_lastBlock = std::string(1, STX) + body + (last ? ETX : EOT);
    m_lastBlock += xorBcc(m_lastBlock, 1, m_lastBlock.size());
    ++m_blocksSent;
    send(m_lastBlock, true);
    if (last) {
        m_inArchive = false;
    } else if (m_cfg.hangupInArchive && !m_hungUp) {
        m_hungUp = true;
        hangup();
    }
}

void CMeterSim::sendData(const std::string& body, bool last) {
    std::string reply = std::string(1, STX) + body + (last ? ETX : EOT);
    reply += xorBcc(reply, 1, reply.size());
    send(reply);
}

void CMeterSim::send(std::string bytes, bool block) {
    ++m_replies;
    bool hasBcc = bytes.size() > 2 && (bytes[0] == SOH || bytes[0] == STX);
    if (hasBcc && m_cfg.badBccEvery > 0 && m_replies % m_cfg.badBccEvery == 0) {
        char bad = static_cast<char>(bytes.back() ^ 0x40);
        if ((bad & 0x7F) < 0x20 || bad == '/')
            bad = static_cast<char>(bad ^ 0x80);
        bytes.back() = bad;
    }
    if (m_cfg.dropByteEvery > 0 && m_replies % m_cfg.dropByteEvery == 0 && bytes.size() > 2)
        bytes.erase(bytes.size() / 2, 1);
    CLineFaults::Kind kind = m_fault;
    m_fault = CLineFaults::None;
    auto fixed = block ? m_cfg.blockFaults.find(m_blocksSent) : m_cfg.blockFaults.end();
    if (fixed != m_cfg.blockFaults.end()) {
        kind = static_cast<CLineFaults::Kind>(fixed->second);
        m_cfg.blockFaults.erase(fixed);
    }
    // The end byte sits before the check byte of a framed answer, last in a sign-on answer.
    CLineFaults::Framing framing;
    framing.checkBytes = hasBcc ? 1 : 0;
    framing.endPos = static_cast<long>(bytes.size()) - 1 - static_cast<long>(framing.checkBytes);
    m_faults.deliver(*m_line, std::vector<uint8_t>(bytes.begin(), bytes.end()), kind, framing);
}

std::string CMeterSim::registerValue(const std::string& address) const {
    return readRegister(address, false);
}

std::string CMeterSim::readRegister(const std::string& address, bool withUnit) const {
    const bool tc = isTc();
    const std::time_t now = deviceNow();
    const double rate = 5.0 + static_cast<double>(m_cfg.seed % 20);
    const std::time_t origin = m_clockStart - static_cast<std::time_t>(m_cfg.archiveDays) * 86400 - 86400;
    const double vstd = 1000.0 + static_cast<double>(m_cfg.seed % 9000) + rate * static_cast<double>(now - origin) / 3600.0;
    const double kcorr = 1.6734;
    const std::string& pu = m_cfg.pressureUnit;
    std::vector<Register> regs = {
        {"1:180.0", m_cfg.serial, ""},
        {"1:181.0", m_cfg.model, ""},
        {tc ? "02:0141.0" : "2:141.0", std::to_string(m_cfg.rateHour), ""},
        {"2:190.0", m_cfg.firmware, ""},
        {"4:150.0", std::to_string(m_cfg.archivePeriod), "min"},
        {tc ? "01:0400.0" : "1:400.0", fmtTime(now), ""},
        {"2:300.0", fmt("%.4f", vstd), "m3"},
        {"4:300.0", fmt("%.4f", vstd / kcorr), "m3"},
        {"2:301.0", "12.5000", "m3"},
        {"4:301.0", "7.4700", "m3"},
        {"6:310_1.0", "12.34", "C"},
        {tc ? "7:311.0" : "6:210.0", fmt("%.5f", pressureIn(pu, 1.7)), pu},
        {"5:310.0", fmt("%.4f", kcorr), ""},
        {tc ? "8:311.0" : "8:310.0", "1.0023", ""},
        {"6:314_1.0", "20.00", "C"},
        {"7:314_1.0", fmt("%.5f", pressureIn(pu, 1.01325)), pu},
        {"11:314.0", "0.500", "%"},
        {"12:314.0", "0.000", "%"},
        {"14:314.0", "0.900", "%"},
        {"13:314_1.0", "0.6800", "kg/m3"},
        {"4:170.0", m_consumerOpen ? "1" : "0", ""},
    };
    if (!tc) {
        regs.push_back({"8:317.0", std::to_string(m_cfg.kMode), ""});
        regs.push_back({"2:302.0", fmt("%.4f", vstd + 12.5), "m3"});
        regs.push_back({"4:302.0", fmt("%.4f", vstd / kcorr + 7.47), "m3"});
        regs.push_back({"3:170.0", m_supplierOpen ? "1" : "0", ""});
    }
    for (const auto& r : regs) {
        if (r.address != address)
            continue;
        std::string value = r.value;
        auto given = m_cfg.values.find(address);
        if (given != m_cfg.values.end())
            value = given->second;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto written = m_written.find(address);
            if (written != m_written.end())
                value = written->second;
        }
        return withUnit && !r.unit.empty() ? value + "*" + r.unit : value;
    }
    return kErrUnknown;
}

bool CMeterSim::writeRegister(const std::string& address, const std::string& value, std::string& error) {
    if (address == "4:171.0" || (address == "3:171.0" && !isTc())) {
        bool consumer = address == "4:171.0";
        if (value != (consumer ? m_cfg.consumerPassword : m_cfg.supplierPassword)) {
            error = kErrPassword;
            return false;
        }
        (consumer ? m_consumerOpen : m_supplierOpen) = true;
        return true;
    }
    // Gas passport: attribute .1 sets the value read back at .0, behind the supplier lock.
    if (address.size() > 2 && address.compare(address.size() - 2, 2, ".1") == 0) {
        std::string target = address.substr(0, address.size() - 1) + "0";
        if (readRegister(target, false) == kErrUnknown && target != "1:314.0") {
            error = kErrUnknown;
            return false;
        }
        if (!m_supplierOpen) {
            error = kErrLocked;
            return false;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_written[target] = value;
        return true;
    }
    error = readRegister(address, false) == kErrUnknown ? kErrUnknown : kErrLocked;
    return false;
}

std::vector<std::string> CMeterSim::archiveRecords(int archive, std::time_t from, std::time_t to) const {
    std::vector<std::string> out;
    const std::time_t now = deviceNow();
    if (to > now)
        to = now;
    const bool tc = isTc();
    std::time_t history = m_clockStart - static_cast<std::time_t>(m_cfg.archiveDays) * 86400;
    const std::time_t origin = m_clockStart - static_cast<std::time_t>(m_cfg.archiveDays) * 86400 - 86400;
    const double rate = 5.0 + static_cast<double>(m_cfg.seed % 20);
    auto counter = [&](std::time_t t) {
        return 1000.0 + static_cast<double>(m_cfg.seed % 9000) + rate * static_cast<double>(t - origin) / 3600.0;
    };
    // Where record k (from 1) of the archive lies in time.
    long long step = 0;
    std::time_t base = 0;
    if (archive == 3) {
        step = 60LL * (m_cfg.archivePeriod > 0 ? m_cfg.archivePeriod : 60);
        base = history - history % step;
    } else if (archive == 7) {
        step = 86400;
        base = history - history % 86400 + m_cfg.rateHour * 3600 - 86400;
    } else if (archive == 4) {
        step = 7 * 3600;
        base = history - history % 3600;
    } else if (archive == 5) {
        step = 36 * 3600;
        base = history - history % 3600;
    } else {
        return out;
    }
    const bool jitter = archive == 4 || archive == 5;
    long long k = from > base ? (from - base) / step : 1;
    if (k < 1)
        k = 1;
    for (;; ++k) {
        uint64_t h = simMix64(m_cfg.seed * 1000003ull + static_cast<uint64_t>(archive) * 7919ull + static_cast<uint64_t>(k));
        std::time_t t = base + k * step + (jitter ? static_cast<std::time_t>(h % 3600) : 0);
        if (t > to)
            break;
        if (t < from)
            continue;
        std::string npp = std::to_string(archive * 100000 + k);
        std::string idx = std::to_string(k);
        std::string when = fmtTime(t);
        if (archive == 4) {
            // Two entries in the same second (a message going as another comes),
            // numbered on without a gap.
            const size_t codes = sizeof kEventCodes / sizeof kEventCodes[0];
            for (long long e = 2 * k - 1; e <= 2 * k; ++e) {
                const char* code = kEventCodes[(h + static_cast<uint64_t>(e)) % codes];
                if (m_cfg.oddEventCodeEvery > 0 && e % m_cfg.oddEventCodeEvery == 0)
                    code = kOddEventCode;
                out.push_back(record({std::to_string(archive * 100000 + e), std::to_string(e), when, code}));
            }
        } else if (archive == 5) {
            out.push_back(record({npp, idx, when, "7:314_1.1", fmt("%.5f", 1.01325), fmt("%.5f", 1.01325 + (h % 7) / 1000.0),
                                  "1", std::to_string(h % 100)}));
        } else {
            double v = counter(t);
            double kc = 1.6 + static_cast<double>(h % 1000) / 10000.0;
            std::string vstd = fmt("%.4f", v), vsum = fmt("%.4f", v + 12.5), vwsum = fmt("%.4f", (v + 12.5) / kc);
            std::string st = std::to_string(h % 3 == 0 ? 0 : (h >> 8) % 16);
            std::string reason = archive == 3 ? "2" : "3";
            if (tc)
                out.push_back(record({npp, when, vstd, vsum, vwsum, fmt("%.4f", kc), st, "0", "0", reason}));
            else
                out.push_back(record({npp, idx, when, vstd, vsum, vwsum, fmt("%.4f", 0.9977 + (h % 10) / 10000.0),
                                      fmt("%.4f", kc), st, "0", "0", "0", "0", reason}));
        }
    }
    return out;
}
