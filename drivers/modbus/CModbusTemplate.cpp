// SPDX-License-Identifier: Apache-2.0
#include "drivers/modbus/CModbusTemplate.h"

#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "core/DataCodes.h"

namespace {

// A template larger than this is not a register map.
constexpr std::streamoff kMaxTemplateBytes = 1 << 20;
constexpr uint32_t kUnitCodes = 20;

struct Refused {
    std::string member, reason;
};

// Walks one JSON object, remembering where it is for the messages.
class Obj {
public:
    Obj(const Json::Value& v, std::string path) : m_v(v), m_path(std::move(path)) {
        if (!v.isObject())
            throw Refused{m_path.empty() ? "(top)" : m_path, "must be an object"};
    }
    // Refuses members outside `known`: a misspelt member must not pass silently.
    void only(std::initializer_list<const char*> known) const {
        for (const std::string& name : m_v.getMemberNames()) {
            if (std::none_of(known.begin(), known.end(), [&](const char* k) { return name == k; }))
                throw Refused{at(name), "unknown member"};
        }
    }
    bool has(const char* name) const { return m_v.isMember(name); }
    std::string at(const std::string& name) const { return m_path.empty() ? name : m_path + "." + name; }
    const Json::Value& get(const char* name) const { return m_v[name]; }

    long long integer(const char* name, long long lo, long long hi, long long def, bool required = false) const {
        if (!has(name)) {
            if (required)
                throw Refused{at(name), "is required"};
            return def;
        }
        const Json::Value& v = m_v[name];
        if (!v.isInt64())
            throw Refused{at(name), "must be an integer"};
        const long long n = v.asInt64();
        if (n < lo || n > hi)
            throw Refused{at(name), "must be between " + std::to_string(lo) + " and " + std::to_string(hi)};
        return n;
    }
    double number(const char* name, double def) const {
        if (!has(name))
            return def;
        const Json::Value& v = m_v[name];
        if (!v.isNumeric() || !std::isfinite(v.asDouble()))
            throw Refused{at(name), "must be a number"};
        return v.asDouble();
    }
    std::string text(const char* name, const std::string& def, bool required = false) const {
        if (!has(name)) {
            if (required)
                throw Refused{at(name), "is required"};
            return def;
        }
        if (!m_v[name].isString())
            throw Refused{at(name), "must be a string"};
        return m_v[name].asString();
    }
    // One of `choices`; its position.
    size_t choice(const char* name, std::initializer_list<const char*> choices, size_t def,
                  bool required = false) const {
        if (!has(name) && !required)
            return def;
        const std::string t = text(name, "", required);
        size_t i = 0;
        for (const char* c : choices) {
            if (t == c)
                return i;
            ++i;
        }
        throw Refused{at(name), "unknown value '" + t.substr(0, 20) + "'"};
    }
    bool flag(const char* name) const {
        if (!has(name))
            return false;
        if (!m_v[name].isBool())
            throw Refused{at(name), "must be true or false"};
        return m_v[name].asBool();
    }

private:
    const Json::Value& m_v;
    std::string m_path;
};

struct Orders {
    bool wordLowFirst = false, byteLowFirst = false;
};

Orders readOrders(const Obj& o, Orders def) {
    Orders r;
    r.wordLowFirst = o.choice("word_order", {"high_first", "low_first"}, def.wordLowFirst ? 1 : 0) == 1;
    r.byteLowFirst = o.choice("byte_order", {"high_first", "low_first"}, def.byteLowFirst ? 1 : 0) == 1;
    return r;
}

ModbusKind readKind(const Obj& o) {
    return static_cast<ModbusKind>(o.choice("kind", {"holding", "input", "coil", "discrete"}, 0, true));
}

bool isBitKind(ModbusKind k) { return k == ModbusKind::Coil || k == ModbusKind::Discrete; }

// kind, address (or offset), format and orders of one value.
ModbusField readField(const Obj& o, Orders def, const char* addressMember, bool textAllowed) {
    ModbusField f;
    f.kind = readKind(o);
    f.address = static_cast<uint16_t>(o.integer(addressMember, 0, 65535, 0, true));
    const size_t fmt = o.choice("format", {"u16", "s16", "u32", "s32", "u64", "float32", "float64", "bit", "text"},
                                isBitKind(f.kind) ? 7 : 0);
    f.format = static_cast<ModbusField::Format>(fmt);
    if (isBitKind(f.kind) != (f.format == ModbusField::Bit))
        throw Refused{o.at("format"), isBitKind(f.kind) ? "coils and discrete inputs are read as bit"
                                                        : "bit is only for coils and discrete inputs"};
    if (f.format == ModbusField::Text) {
        if (!textAllowed)
            throw Refused{o.at("format"), "text is only for the serial number"};
        f.textRegisters = static_cast<uint16_t>(o.integer("registers", 1, 64, 0, true));
    } else if (o.has("registers")) {
        throw Refused{o.at("registers"), "only for the text format"};
    }
    const Orders ord = readOrders(o, def);
    f.wordLowFirst = ord.wordLowFirst;
    f.byteLowFirst = ord.byteLowFirst;
    if (static_cast<uint32_t>(f.address) + f.count() > 65536)
        throw Refused{o.at(addressMember), "the value runs past register 65535"};
    return f;
}

uint32_t readUnit(const Obj& o) {
    if (!o.has("unit"))
        return DU_UNKNOWN;
    const Json::Value& v = o.get("unit");
    if (v.isString()) {
        const std::string name = v.asString();
        if (name.empty())
            return DU_UNKNOWN;
        for (uint32_t u = 1; u < kUnitCodes; ++u) {
            if (name == dataUnitName(u))
                return u;
        }
        throw Refused{o.at("unit"), "'" + name + "' is not a unit name of the daemon"};
    }
    const long long code = o.integer("unit", 0, kUnitCodes - 1, 0);
    if (code == DU_ATM_PHYS || code == DU_CAL)
        throw Refused{o.at("unit"), "unit " + std::to_string(code) + " has no name to publish"};
    return static_cast<uint32_t>(code);
}

bool validName(const std::string& n) {
    if (n.empty() || n.size() > 40)
        return false;
    return std::all_of(n.begin(), n.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
               c == '-';
    });
}

ModbusValue readValue(const Obj& o, Orders def, const char* addressMember, bool allowTotal) {
    if (allowTotal)
        o.only({"name", "kind", "address", "format", "word_order", "byte_order", "scale", "offset", "unit",
                "decimals", "total"});
    else
        o.only({"name", "kind", "at", "format", "word_order", "byte_order", "scale", "offset", "unit", "decimals"});
    ModbusValue v;
    v.name = o.text("name", "", true);
    if (!validName(v.name))
        throw Refused{o.at("name"), "must be 1 to 40 letters, digits, '.', '_' or '-'"};
    v.field = readField(o, def, addressMember, false);
    v.scale = o.number("scale", 1.0);
    if (v.scale == 0)
        throw Refused{o.at("scale"), "must not be 0"};
    v.offset = o.number("offset", 0.0);
    v.unit = readUnit(o);
    v.decimals = static_cast<int>(o.integer("decimals", 0, 9, -1));
    v.total = allowTotal && o.flag("total");
    return v;
}

ModbusClock readClock(const Obj& o, Orders def, const char* addressMember) {
    o.only({"kind", addressMember, "encoding", "format", "word_order", "byte_order"});
    ModbusClock c;
    c.present = true;
    c.unixSeconds = o.choice("encoding", {"fields", "unix"}, 0, true) == 1;
    if (c.unixSeconds) {
        c.field = readField(o, def, addressMember, false);
        if (c.field.format != ModbusField::U32 && c.field.format != ModbusField::U64)
            throw Refused{o.at("format"), "Unix seconds are read as u32 or u64"};
    } else {
        if (o.has("format"))
            throw Refused{o.at("format"), "the fields encoding is six u16 registers, no format"};
        c.field.kind = readKind(o);
        if (isBitKind(c.field.kind))
            throw Refused{o.at("kind"), "a clock is in holding or input registers"};
        c.field.address = static_cast<uint16_t>(o.integer(addressMember, 0, 65530, 0, true));
        c.field.format = ModbusField::U16;
    }
    return c;
}

void readArchive(const Obj& o, Orders def, int maxRegisters, ModbusArchive& a) {
    o.only({"select", "select_address", "newest", "depth", "window", "time", "fields"});
    a.present = true;
    a.byTime = o.choice("select", {"number", "time"}, 0, true) == 1;
    a.selectAddress = static_cast<uint16_t>(o.integer("select_address", 0, 65534, 0, true));
    if (!a.byTime) {
        if (!o.has("newest"))
            throw Refused{o.at("newest"), "is required when records are selected by number"};
        const Obj n(o.get("newest"), o.at("newest"));
        n.only({"kind", "address", "format", "word_order", "byte_order"});
        a.newest = readField(n, def, "address", false);
        if (a.newest.format != ModbusField::U16 && a.newest.format != ModbusField::U32)
            throw Refused{n.at("format"), "a record number is u16 or u32"};
        a.depth = static_cast<uint32_t>(o.integer("depth", 1, 100000, 0, true));
    } else if (o.has("newest") || o.has("depth")) {
        throw Refused{o.at(o.has("newest") ? "newest" : "depth"), "only when records are selected by number"};
    }
    if (!o.has("window"))
        throw Refused{o.at("window"), "is required"};
    const Obj w(o.get("window"), o.at("window"));
    w.only({"kind", "address"});
    a.windowKind = readKind(w);
    if (isBitKind(a.windowKind))
        throw Refused{w.at("kind"), "a record window is in holding or input registers"};
    a.windowAddress = static_cast<uint16_t>(w.integer("address", 0, 65535, 0, true));
    if (!o.has("time"))
        throw Refused{o.at("time"), "is required"};
    a.time = readClock(Obj(o.get("time"), o.at("time")), def, "at");
    uint32_t end = a.time.unixSeconds ? a.time.field.address + a.time.field.count() : a.time.field.address + 6u;
    const Json::Value& fields = o.get("fields");
    if (!fields.isArray() || fields.empty())
        throw Refused{o.at("fields"), "must be a non-empty array"};
    for (Json::ArrayIndex i = 0; i < fields.size(); ++i) {
        const std::string path = o.at("fields") + "[" + std::to_string(i) + "]";
        ModbusValue v = readValue(Obj(fields[i], path), def, "at", false);
        if (isBitKind(v.field.kind) || v.field.kind != a.windowKind)
            throw Refused{path + ".kind", "must be the window's kind"};
        end = std::max<uint32_t>(end, v.field.address + v.field.count());
        a.fields.push_back(std::move(v));
    }
    if (end > static_cast<uint32_t>(maxRegisters))
        throw Refused{o.at("fields"), "the record takes " + std::to_string(end) +
                                          " registers, more than max_registers_per_read"};
    if (a.windowAddress + end > 65536)
        throw Refused{w.at("address"), "the window runs past register 65535"};
    a.windowCount = static_cast<uint16_t>(end);
}

void readTemplate(const Json::Value& root, CModbusTemplate& t) {
    const Obj o(root, "");
    o.only({"$schema", "name", "description", "slave", "line", "max_registers_per_read", "max_bits_per_read",
            "attempts", "word_order", "byte_order", "clock", "serial", "values", "archives"});
    t.name = o.text("name", "", true);
    o.text("description", "");
    t.slave = static_cast<int>(o.integer("slave", 1, 247, 1));
    t.maxRegisters = static_cast<int>(o.integer("max_registers_per_read", 1, 125, 125));
    t.maxBits = static_cast<int>(o.integer("max_bits_per_read", 1, 2000, 2000));
    t.attempts = static_cast<int>(o.integer("attempts", 1, 5, 3));
    const Orders def = readOrders(o, Orders());
    if (o.has("line")) {
        const Obj l(o.get("line"), "line");
        l.only({"speed", "data", "parity", "stop"});
        if (l.has("speed"))
            t.speed = std::to_string(l.integer("speed", 300, 921600, 9600));
        if (l.has("data"))
            t.data = std::to_string(l.integer("data", 7, 8, 8));
        if (l.has("parity"))
            t.parity = std::string(1, "NEO"[l.choice("parity", {"N", "E", "O"}, 0)]);
        if (l.has("stop"))
            t.stop = std::to_string(l.integer("stop", 1, 2, 1));
    }
    if (o.has("clock"))
        t.clock = readClock(Obj(o.get("clock"), "clock"), def, "address");
    if (o.has("serial")) {
        const Obj s(o.get("serial"), "serial");
        s.only({"kind", "address", "format", "registers", "word_order", "byte_order"});
        t.serial = readField(s, def, "address", true);
        if (t.serial.format != ModbusField::U16 && t.serial.format != ModbusField::U32 &&
            t.serial.format != ModbusField::U64 && t.serial.format != ModbusField::Text)
            throw Refused{s.at("format"), "a serial number is u16, u32, u64 or text"};
        t.hasSerial = true;
    }
    const Json::Value& values = o.get("values");
    if (!values.isArray() || values.empty())
        throw Refused{"values", "must be a non-empty array"};
    std::set<std::string> names;
    for (Json::ArrayIndex i = 0; i < values.size(); ++i) {
        const std::string path = "values[" + std::to_string(i) + "]";
        ModbusValue v = readValue(Obj(values[i], path), def, "address", true);
        if (!names.insert(v.name).second)
            throw Refused{path + ".name", "'" + v.name + "' is named twice"};
        t.values.push_back(std::move(v));
    }
    for (size_t i = 0; i < t.values.size(); ++i) {
        const ModbusField& f = t.values[i].field;
        const int limit = isBitKind(f.kind) ? t.maxBits : t.maxRegisters;
        if (f.count() > limit)
            throw Refused{"values[" + std::to_string(i) + "].format", "takes more registers than one read may ask"};
    }
    if (t.hasSerial && t.serial.count() > t.maxRegisters)
        throw Refused{"serial.registers", "more registers than one read may ask"};
    if (o.has("archives")) {
        const Obj a(o.get("archives"), "archives");
        a.only({"hourly", "daily"});
        if (a.has("hourly"))
            readArchive(Obj(a.get("hourly"), "archives.hourly"), def, t.maxRegisters, t.hourly);
        if (a.has("daily"))
            readArchive(Obj(a.get("daily"), "archives.daily"), def, t.maxRegisters, t.daily);
        if ((t.hourly.present || t.daily.present) && !t.clock.present)
            throw Refused{"clock", "is required with archives: records are read against the meter's clock"};
    }
}

// Bytes of the words as they stand in the value, most significant first.
void orderedBytes(const ModbusField& f, const uint16_t* regs, uint16_t n, uint8_t* out) {
    for (uint16_t i = 0; i < n; ++i) {
        const uint16_t w = regs[f.wordLowFirst ? n - 1 - i : i];
        const uint8_t hi = static_cast<uint8_t>(w >> 8), lo = static_cast<uint8_t>(w & 0xFF);
        out[2 * i] = f.byteLowFirst ? lo : hi;
        out[2 * i + 1] = f.byteLowFirst ? hi : lo;
    }
}

uint64_t bigEndian(const uint8_t* b, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = v << 8 | b[i];
    return v;
}

}  // namespace

uint16_t ModbusField::count() const {
    switch (format) {
    case U32: case S32: case Float32: return 2;
    case U64: case Float64: return 4;
    case Text: return textRegisters;
    default: return 1;
    }
}

bool parseModbusTemplate(const std::string& text, const std::string& file, CModbusTemplate& out, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    builder["allowComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string jsonError;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &jsonError)) {
        std::string first = jsonError.substr(0, jsonError.find('\n'));
        error = file + ": (top): not JSON: " + first;
        return false;
    }
    CModbusTemplate t;
    t.file = file;
    try {
        readTemplate(root, t);
    } catch (const Refused& r) {
        error = file + ": " + r.member + ": " + r.reason;
        return false;
    }
    out = std::move(t);
    return true;
}

bool loadModbusTemplate(const std::string& path, CModbusTemplate& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": (file): cannot be read";
        return false;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0 || size > kMaxTemplateBytes) {
        error = path + ": (file): larger than 1 MiB";
        return false;
    }
    in.seekg(0);
    std::ostringstream text;
    text << in.rdbuf();
    return parseModbusTemplate(text.str(), path, out, error);
}

std::string findModbusTemplate(const std::string& name, const std::vector<std::string>& dirs) {
    if (name.empty() || name[0] == '.' || name.find('/') != std::string::npos)
        return "";
    for (const std::string& dir : dirs) {
        if (dir.empty())
            continue;
        const std::string path = dir + (dir.back() == '/' ? "" : "/") + name + ".json";
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            return path;
    }
    return "";
}

uint64_t decodeModbusInteger(const ModbusField& f, const uint16_t* regs) {
    uint8_t b[8] = {};
    const uint16_t n = std::min<uint16_t>(f.count(), 4);
    orderedBytes(f, regs, n, b);
    return bigEndian(b, 2u * n);
}

double decodeModbusNumber(const ModbusField& f, const uint16_t* regs) {
    if (f.format == ModbusField::Bit)
        return regs[0] ? 1.0 : 0.0;
    const uint64_t raw = decodeModbusInteger(f, regs);
    switch (f.format) {
    case ModbusField::S16: return static_cast<int16_t>(static_cast<uint16_t>(raw));
    case ModbusField::S32: return static_cast<int32_t>(static_cast<uint32_t>(raw));
    case ModbusField::Float32: {
        const uint32_t bits = static_cast<uint32_t>(raw);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    case ModbusField::Float64: {
        double v;
        std::memcpy(&v, &raw, sizeof v);
        return v;
    }
    default: return static_cast<double>(raw);
    }
}

std::string decodeModbusText(const ModbusField& f, const uint16_t* regs) {
    std::string s(2u * f.textRegisters, '\0');
    for (uint16_t i = 0; i < f.textRegisters; ++i) {
        const uint16_t w = regs[i];
        s[2 * i] = static_cast<char>(f.byteLowFirst ? w & 0xFF : w >> 8);
        s[2 * i + 1] = static_cast<char>(f.byteLowFirst ? w >> 8 : w & 0xFF);
    }
    const size_t end = s.find_last_not_of(std::string(" \0", 2));
    s.resize(end == std::string::npos ? 0 : end + 1);
    return s;
}

std::vector<ModbusBlock> planModbusReads(const std::vector<ModbusField>& fields, int maxRegisters, int maxBits) {
    std::vector<size_t> order(fields.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (fields[a].kind != fields[b].kind)
            return fields[a].kind < fields[b].kind;
        return fields[a].address < fields[b].address;
    });
    std::vector<ModbusBlock> blocks;
    for (size_t i : order) {
        const ModbusField& f = fields[i];
        const uint32_t limit = static_cast<uint32_t>(isBitKind(f.kind) ? maxBits : maxRegisters);
        const uint32_t end = static_cast<uint32_t>(f.address) + f.count();
        if (!blocks.empty()) {
            ModbusBlock& b = blocks.back();
            const uint32_t bEnd = static_cast<uint32_t>(b.address) + b.count;
            if (b.kind == f.kind && f.address <= bEnd && std::max(bEnd, end) - b.address <= limit) {
                b.count = static_cast<uint16_t>(std::max(bEnd, end) - b.address);
                b.items.push_back(i);
                continue;
            }
        }
        ModbusBlock b;
        b.kind = f.kind;
        b.address = f.address;
        b.count = f.count();
        b.items.push_back(i);
        blocks.push_back(std::move(b));
    }
    return blocks;
}
