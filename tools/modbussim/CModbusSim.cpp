// SPDX-License-Identifier: Apache-2.0
#include "tools/modbussim/CModbusSim.h"

#include <json/json.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/simline/SimTime.h"

namespace {

enum Kind { kHolding = 0, kInput = 1, kCoil = 2, kDiscrete = 3 };
constexpr std::time_t kModelEpoch = 1600000000;
// Records a meter selected by time keeps (62 days of hours).
constexpr long kTimeDepth = 1488;

// CRC-16/MODBUS bit by bit (reflected polynomial 0xA001, start 0xFFFF), as
// the Modbus serial-line guide gives it; sent low byte first.
uint16_t crc16(const uint8_t* p, size_t n) {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

int kindOf(const std::string& k) {
    return k == "input" ? kInput : k == "coil" ? kCoil : k == "discrete" ? kDiscrete : kHolding;
}

int registersOf(const std::string& format, int textRegisters) {
    if (format == "u32" || format == "s32" || format == "float32")
        return 2;
    if (format == "u64" || format == "float64")
        return 4;
    if (format == "text")
        return textRegisters;
    return 1;
}

}  // namespace

struct CModbusSim::Item {
    enum Role { Value, Clock, Serial, Newest } role = Value;
    int kind = kHolding;
    int address = 0;
    int count = 1;
    std::string name;
    std::string format = "u16";
    bool wordLow = false, byteLow = false;
    double scale = 1, offset = 0;
    bool total = false;
    int index = 0;          // place in "values", for the model
    bool unixClock = false; // Clock: seconds, else six fields
    const Archive* archive = nullptr;  // Newest: of which archive
};

struct CModbusSim::Archive {
    bool byTime = false;
    bool daily = false;
    int selectAddress = 0;
    long depth = 0;
    int windowKind = kHolding;
    int windowAddress = 0;
    int windowCount = 0;
    Item time;                // address = offset in the window
    std::vector<Item> fields; // address = offset in the window
    uint32_t select = 0;
};

namespace {

// The words of a number as they go on the line: most significant first, then
// the template's byte and word order applied.
std::vector<uint16_t> encode(const CModbusSim::Item& it, double raw) {
    const int n = registersOf(it.format, 0);
    uint8_t b[8] = {};
    uint64_t bits = 0;
    if (it.format == "float32") {
        const float f = static_cast<float>(raw);
        uint32_t u;
        std::memcpy(&u, &f, 4);
        bits = u;
    } else if (it.format == "float64") {
        std::memcpy(&bits, &raw, 8);
    } else if (it.format == "s16" || it.format == "s32") {
        bits = static_cast<uint64_t>(static_cast<int64_t>(std::llround(raw)));
    } else {
        bits = static_cast<uint64_t>(std::llround(std::max(0.0, raw)));
    }
    for (int i = 0; i < 2 * n; ++i)
        b[i] = static_cast<uint8_t>(bits >> (8 * (2 * n - 1 - i)));
    std::vector<uint16_t> words(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        const uint8_t first = it.byteLow ? b[2 * i + 1] : b[2 * i];
        const uint8_t second = it.byteLow ? b[2 * i] : b[2 * i + 1];
        words[static_cast<size_t>(it.wordLow ? n - 1 - i : i)] = static_cast<uint16_t>(first << 8 | second);
    }
    return words;
}

std::vector<uint16_t> clockWords(const CModbusSim::Item& it, std::time_t t) {
    if (it.unixClock)
        return encode(it, static_cast<double>(t));
    struct tm tm {};
    gmtime_r(&t, &tm);
    return {static_cast<uint16_t>(tm.tm_year + 1900), static_cast<uint16_t>(tm.tm_mon + 1),
            static_cast<uint16_t>(tm.tm_mday), static_cast<uint16_t>(tm.tm_hour), static_cast<uint16_t>(tm.tm_min),
            static_cast<uint16_t>(tm.tm_sec)};
}

void readOrder(const Json::Value& v, const Json::Value& root, CModbusSim::Item& it) {
    const auto pick = [&](const char* m) {
        return (v.isMember(m) ? v[m] : root[m]).asString() == "low_first";
    };
    it.wordLow = pick("word_order");
    it.byteLow = pick("byte_order");
}

CModbusSim::Item itemOf(const Json::Value& v, const Json::Value& root, const char* addressMember) {
    CModbusSim::Item it;
    it.kind = kindOf(v["kind"].asString());
    it.address = v[addressMember].asInt();
    it.format = v.get("format", (it.kind == kCoil || it.kind == kDiscrete) ? "bit" : "u16").asString();
    it.count = registersOf(it.format, v.get("registers", 1).asInt());
    it.name = v.get("name", "").asString();
    it.scale = v.get("scale", 1.0).asDouble();
    it.offset = v.get("offset", 0.0).asDouble();
    it.total = v.get("total", false).asBool();
    readOrder(v, root, it);
    return it;
}

CModbusSim::Item clockOf(const Json::Value& v, const Json::Value& root, const char* addressMember) {
    CModbusSim::Item it = itemOf(v, root, addressMember);
    it.role = CModbusSim::Item::Clock;
    it.unixClock = v["encoding"].asString() == "unix";
    if (!it.unixClock) {
        it.count = 6;
        it.format = "u16";
    } else if (!v.isMember("format")) {
        it.format = "u32";
        it.count = 2;
    }
    return it;
}

}  // namespace

CModbusSim::CModbusSim(SModbusSimConfig config, std::string link)
    : m_cfg(std::move(config)),
      m_line(CSimLine::lineOptions(m_cfg.baud, m_cfg.timing, std::move(link))),
      m_faults(m_cfg.faultSeed, m_cfg.faultShare),
      m_steadyStart(std::chrono::steady_clock::now()) {
    if (m_cfg.now == 0)
        m_cfg.now = std::time(nullptr);
}

CModbusSim::~CModbusSim() { stop(); }

bool CModbusSim::load(std::string& error) {
    std::ifstream in(m_cfg.templateFile);
    std::stringstream text;
    text << in.rdbuf();
    Json::Value root;
    Json::CharReaderBuilder b;
    std::string err;
    std::unique_ptr<Json::CharReader> reader(b.newCharReader());
    const std::string s = text.str();
    if (!in || !reader->parse(s.data(), s.data() + s.size(), &root, &err) || !root.isObject()) {
        error = "cannot read template " + m_cfg.templateFile + ": " + err;
        return false;
    }
    // The daemon checks templates; here a member of the wrong type is only
    // refused, not explained.
    try {
        return loadTemplate(root, error);
    } catch (const Json::Exception& e) {
        error = "template " + m_cfg.templateFile + " has a member of the wrong type: " + e.what();
        return false;
    }
}

bool CModbusSim::loadTemplate(const Json::Value& root, std::string& error) {
    if (!root["values"].isArray() || root["values"].empty()) {
        error = "template " + m_cfg.templateFile + " has no values";
        return false;
    }
    m_slave = m_cfg.slave ? m_cfg.slave : root.get("slave", 1).asInt();
    const Json::Value& values = root["values"];
    for (Json::ArrayIndex i = 0; i < values.size(); ++i) {
        auto it = std::make_shared<Item>(itemOf(values[i], root, "address"));
        it->index = static_cast<int>(i);
        m_items.push_back(it);
    }
    if (root.isMember("clock"))
        m_items.push_back(std::make_shared<Item>(clockOf(root["clock"], root, "address")));
    if (root.isMember("serial")) {
        auto it = std::make_shared<Item>(itemOf(root["serial"], root, "address"));
        it->role = Item::Serial;
        m_items.push_back(it);
    }
    for (const char* kind : {"hourly", "daily"}) {
        const Json::Value& a = root["archives"][kind];
        if (!a.isObject())
            continue;
        auto ar = std::make_shared<Archive>();
        ar->daily = std::string(kind) == "daily";
        ar->byTime = a["select"].asString() == "time";
        ar->selectAddress = a["select_address"].asInt();
        ar->depth = ar->byTime ? kTimeDepth : a["depth"].asInt();
        ar->windowKind = kindOf(a["window"]["kind"].asString());
        ar->windowAddress = a["window"]["address"].asInt();
        ar->time = clockOf(a["time"], root, "at");
        int end = ar->time.address + ar->time.count;
        for (const Json::Value& f : a["fields"]) {
            Item it = itemOf(f, root, "at");
            it.total = true;
            for (const auto& v : m_items)
                if (v->role == Item::Value && v->name == it.name) {
                    it.total = v->total;
                    it.index = v->index;
                }
            end = std::max(end, it.address + it.count);
            ar->fields.push_back(it);
        }
        ar->windowCount = end;
        if (!ar->byTime) {
            auto n = std::make_shared<Item>(itemOf(a["newest"], root, "address"));
            n->role = Item::Newest;
            n->archive = ar.get();
            m_items.push_back(n);
        }
        m_archives.push_back(ar);
    }
    return true;
}

uint16_t CModbusSim::crc(const uint8_t* p, size_t n) { return crc16(p, n); }

bool CModbusSim::open() { return m_line.open(); }

bool CModbusSim::start() {
    return m_serving.start([this] { serve(); });
}

void CModbusSim::stop() {
    m_serving.stop();
}

std::time_t CModbusSim::deviceNow() const {
    return simDeviceTime(m_cfg.now, m_steadyStart, m_cfg.clockScale);
}

namespace {

// Totals grow by 10 x (index + 1) an hour; other values wander around 1.5 x (index + 1).
double model(int index, bool total, std::time_t t) {
    const double k = index + 1;
    if (total)
        return 1000 * k + 10 * k * static_cast<double>(t - kModelEpoch) / 3600.0;
    return 1.5 * k + 0.1 * k * std::sin(static_cast<double>(t) / 600.0);
}

}  // namespace

double CModbusSim::modelValue(const std::string& name, std::time_t t) const {
    for (const auto& it : m_items)
        if (it->role == Item::Value && it->name == name)
            return model(it->index, it->total, t);
    return NAN;
}

bool CModbusSim::archiveWindow(const Archive& a, int address, int count, int kind, std::vector<uint16_t>& out,
                               bool& mapped) {
    mapped = kind == a.windowKind && address >= a.windowAddress &&
             address + count <= a.windowAddress + a.windowCount;
    if (!mapped)
        return false;
    const std::time_t period = a.daily ? 86400 : 3600;
    const std::time_t shift = a.daily ? m_cfg.rateHour * 3600 : 0;
    const std::time_t now = deviceNow();
    const long newest = static_cast<long>((now - shift) / period);
    std::time_t t = 0;
    if (a.byTime) {
        t = static_cast<std::time_t>(a.select);
        const long n = static_cast<long>((t - shift) / period);
        if ((t - shift) % period != 0 || n > newest || n <= newest - a.depth)
            return false;
    } else {
        const long n = static_cast<long>(a.select);
        if (n > newest || n <= newest - a.depth || n < 1)
            return false;
        t = static_cast<std::time_t>(n) * period + shift;
    }
    std::vector<uint16_t> window(static_cast<size_t>(a.windowCount), 0);
    const std::vector<uint16_t> tw = clockWords(a.time, t);
    std::copy(tw.begin(), tw.end(), window.begin() + a.time.address);
    for (const Item& f : a.fields) {
        const std::vector<uint16_t> w = encode(f, (model(f.index, f.total, t) - f.offset) / f.scale);
        std::copy(w.begin(), w.end(), window.begin() + f.address);
    }
    out.assign(window.begin() + (address - a.windowAddress), window.begin() + (address - a.windowAddress + count));
    return true;
}

bool CModbusSim::readRegisters(int kind, int address, int count, std::vector<uint16_t>& out) {
    const std::time_t now = deviceNow();
    for (int r = address; r < address + count; ++r)
        if ((kind == kHolding || kind == kInput) && m_cfg.refuse.count(r))
            return false;
    for (const auto& a : m_archives) {
        bool mapped = false;
        if (archiveWindow(*a, address, count, kind, out, mapped) || mapped)
            return !out.empty() && mapped;
    }
    out.assign(static_cast<size_t>(count), 0);
    for (int r = address; r < address + count; ++r) {
        const Item* hit = nullptr;
        for (const auto& it : m_items)
            if (it->kind == kind && r >= it->address && r < it->address + it->count)
                hit = it.get();
        if (!hit)
            return false;  // not in the map: 02
        std::vector<uint16_t> w;
        switch (hit->role) {
        case Item::Clock: w = clockWords(*hit, now); break;
        case Item::Newest: {
            const Archive& a = *hit->archive;
            const std::time_t period = a.daily ? 86400 : 3600;
            w = encode(*hit, static_cast<double>((now - (a.daily ? m_cfg.rateHour * 3600 : 0)) / period));
            break;
        }
        case Item::Serial:
            if (hit->format == "text") {
                std::string s = m_cfg.serial;
                s.resize(static_cast<size_t>(2 * hit->count), ' ');
                for (int i = 0; i < hit->count; ++i) {
                    const uint8_t a = static_cast<uint8_t>(s[2 * i]), b = static_cast<uint8_t>(s[2 * i + 1]);
                    w.push_back(static_cast<uint16_t>(hit->byteLow ? b << 8 | a : a << 8 | b));
                }
            } else {
                w = encode(*hit, std::strtod(m_cfg.serial.c_str(), nullptr));
            }
            break;
        default:
            if (hit->format == "bit")
                w = {static_cast<uint16_t>((now / 600) % 2)};
            else
                w = encode(*hit, (model(hit->index, hit->total, now) - hit->offset) / hit->scale);
            break;
        }
        out[static_cast<size_t>(r - address)] = w[static_cast<size_t>(r - hit->address)];
    }
    return true;
}

std::vector<uint8_t> CModbusSim::answer(const std::vector<uint8_t>& pdu) {
    const uint8_t fn = pdu.empty() ? 0 : pdu[0];
    const auto refuse = [fn](uint8_t code) { return std::vector<uint8_t>{static_cast<uint8_t>(fn | 0x80), code}; };
    if (fn >= 1 && fn <= 4) {
        if (pdu.size() != 5)
            return refuse(0x03);
        const int address = pdu[1] << 8 | pdu[2];
        const int count = pdu[3] << 8 | pdu[4];
        const bool bits = fn <= 2;
        if (count < 1 || count > (bits ? 2000 : 125))
            return refuse(0x03);
        const int kind = fn == 1 ? kCoil : fn == 2 ? kDiscrete : fn == 3 ? kHolding : kInput;
        std::vector<uint16_t> regs;
        if (!readRegisters(kind, address, count, regs))
            return refuse(0x02);
        std::vector<uint8_t> out{fn};
        if (bits) {
            out.push_back(static_cast<uint8_t>((count + 7) / 8));
            out.resize(out.size() + static_cast<size_t>((count + 7) / 8), 0);
            for (int i = 0; i < count; ++i)
                if (regs[static_cast<size_t>(i)])
                    out[2 + static_cast<size_t>(i / 8)] |= static_cast<uint8_t>(1 << (i % 8));
        } else {
            out.push_back(static_cast<uint8_t>(2 * count));
            for (uint16_t w : regs) {
                out.push_back(static_cast<uint8_t>(w >> 8));
                out.push_back(static_cast<uint8_t>(w & 0xFF));
            }
        }
        return out;
    }
    if (fn == 0x10) {
        if (pdu.size() < 6 || pdu[5] != pdu.size() - 6)
            return refuse(0x03);
        const int address = pdu[1] << 8 | pdu[2];
        const int count = pdu[3] << 8 | pdu[4];
        for (const auto& a : m_archives) {
            if (a->selectAddress == address && count == 2 && pdu.size() == 10) {
                a->select = static_cast<uint32_t>(pdu[6]) << 24 | static_cast<uint32_t>(pdu[7]) << 16 |
                            static_cast<uint32_t>(pdu[8]) << 8 | pdu[9];
                return {fn, pdu[1], pdu[2], pdu[3], pdu[4]};
            }
        }
        return refuse(0x02);
    }
    return refuse(0x01);
}

void CModbusSim::handle(const std::vector<uint8_t>& f) {
    if (f.size() < 4)
        return;
    const uint16_t crc = crc16(f.data(), f.size() - 2);
    if (f[f.size() - 2] != (crc & 0xFF) || f[f.size() - 1] != (crc >> 8) || f[0] != m_slave)
        return;  // damaged, or for another slave: a slave keeps quiet
    const int seen = ++m_requests;
    const CLineFaults::Kind kind = m_faults.draw();
    if (kind == CLineFaults::IgnoredRequest)
        return;
    std::vector<uint8_t> pdu(f.begin() + 1, f.end() - 2);
    std::vector<uint8_t> reply;
    if (m_cfg.busyEvery > 0 && seen % m_cfg.busyEvery == 0)
        reply = {static_cast<uint8_t>(pdu[0] | 0x80), 0x06};
    else
        reply = answer(pdu);
    reply.insert(reply.begin(), static_cast<uint8_t>(m_slave));
    const uint16_t c = crc16(reply.data(), reply.size());
    reply.push_back(static_cast<uint8_t>(c & 0xFF));
    reply.push_back(static_cast<uint8_t>(c >> 8));
    // The slave keeps the line quiet for 3.5 characters before it answers.
    if (m_cfg.timing && !m_line.pause(std::chrono::milliseconds(5)))
        return;
    CLineFaults::Framing framing;
    framing.checkBytes = 2;
    m_faults.deliver(m_line, reply, kind, framing);
}

void CModbusSim::serve() {
    // A frame ends with 3.5 characters of silence; the pseudo-terminal's
    // scheduling needs some slack on top.
    const int gapMs = std::max(4, 35000 / std::max(1, m_cfg.baud)) + 15;
    std::vector<uint8_t> buf;
    uint8_t chunk[256];
    while (!m_line.stopped()) {
        const ssize_t n = m_line.read(chunk, sizeof chunk, buf.empty() ? -1 : gapMs);
        if (n > 0) {
            buf.insert(buf.end(), chunk, chunk + n);
            // A request whose length its function tells is served as soon as
            // it is whole; anything else when the line falls silent.
            size_t whole = 0;
            if (buf.size() >= 2 && buf[1] >= 1 && buf[1] <= 6)
                whole = 8;
            else if (buf.size() >= 7 && buf[1] == 0x10)
                whole = 9u + buf[6];
            if (buf.size() < 512 && (whole == 0 || buf.size() < whole))
                continue;
            if (whole && buf.size() > whole)
                buf.resize(whole);  // the rest is noise or a master that did not wait
        } else if (n < 0) {
            if (!m_line.pause(std::chrono::milliseconds(20)))
                return;
            continue;
        }
        if (!buf.empty())
            handle(buf);
        buf.clear();
    }
}
