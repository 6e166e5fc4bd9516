// SPDX-License-Identifier: Apache-2.0
// Register-map templates: the checks a bad template meets, the word and byte
// orders, the merged reads; then the template driver against mtd_modbussim's
// slave on a pseudo-terminal.
#include "drivers/modbus/CModbusTemplate.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <cmath>
#include <fstream>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/Exceptions.h"
#include "drivers/modbus/CmtdModbusTemplate.h"
#include "support/ArchiveCollector.h"
#include "support/DriverRig.h"
#include "tools/modbussim/CModbusSim.h"

namespace {

using test_support::byName;

std::string sourceDir() { return MTD_TEST_SOURCE_DIR; }

// A minimal good template with `extra` spliced into its top level.
std::string tpl(const std::string& extra, const std::string& values = "") {
    return R"({"name": "t", "values": [{"name": "V", "kind": "holding", "address": 0})" + values + "]" + extra + "}";
}

TEST(ModbusTemplate, RefusalsNameTheMemberAndTheReason) {
    const struct {
        const char* legend;
        std::string text;
        const char* message;  // after "f.json: "
    } rows[] = {
        {"not JSON", "{\"name\": ", "(top): not JSON"},
        {"misspelt member", tpl(", \"slaev\": 3"), "slaev: unknown member"},
        {"misspelt format", tpl("", R"(, {"name": "W", "kind": "input", "address": 4, "format": "flaot32"})"),
         "values[1].format: unknown value 'flaot32'"},
        {"bit in a register", tpl("", R"(, {"name": "W", "kind": "input", "address": 4, "format": "bit"})"),
         "values[1].format: bit is only for coils and discrete inputs"},
        {"coil as a number", tpl("", R"(, {"name": "W", "kind": "coil", "address": 4, "format": "u16"})"),
         "values[1].format: coils and discrete inputs are read as bit"},
        {"name twice", tpl("", R"(, {"name": "V", "kind": "input", "address": 4})"), "values[1].name: 'V' is named twice"},
        {"unit not the daemon's", tpl("", R"(, {"name": "W", "kind": "input", "address": 4, "unit": "m^3"})"),
         "values[1].unit: 'm^3' is not a unit name of the daemon"},
        {"unit without a name", tpl("", R"(, {"name": "W", "kind": "input", "address": 4, "unit": 17})"),
         "values[1].unit: unit 17 has no name to publish"},
        {"scale 0", tpl("", R"(, {"name": "W", "kind": "input", "address": 4, "scale": 0})"),
         "values[1].scale: must not be 0"},
        {"address as text", tpl("", R"(, {"name": "W", "kind": "input", "address": "4"})"),
         "values[1].address: must be an integer"},
        {"past the last register", tpl("", R"(, {"name": "W", "kind": "input", "address": 65534, "format": "u64"})"),
         "values[1].address: the value runs past register 65535"},
        {"slave out of range", tpl(", \"slave\": 248"), "slave: must be between 1 and 247"},
        {"value larger than a read", tpl(", \"max_registers_per_read\": 2", R"(, {"name": "W", "kind": "input", "address": 4, "format": "float64"})"),
         "values[1].format: takes more registers than one read may ask"},
        {"no values", R"({"name": "t", "values": []})", "values: must be a non-empty array"},
        {"archive without a clock",
         tpl(R"(, "archives": {"hourly": {"select": "time", "select_address": 9, "window": {"kind": "holding", "address": 20},
              "time": {"kind": "holding", "at": 0, "encoding": "unix", "format": "u32"},
              "fields": [{"name": "V", "kind": "holding", "at": 2}]}})"),
         "clock: is required with archives: records are read against the meter's clock"},
        {"numbered archive without its newest",
         tpl(R"(, "archives": {"daily": {"select": "number", "select_address": 9, "window": {"kind": "holding", "address": 20},
              "time": {"kind": "holding", "at": 0, "encoding": "fields"}, "fields": [{"name": "V", "kind": "holding", "at": 6}]}})"),
         "archives.daily.newest: is required when records are selected by number"},
    };
    for (const auto& r : rows) {
        CModbusTemplate t;
        std::string error;
        EXPECT_FALSE(parseModbusTemplate(r.text, "f.json", t, error)) << r.legend;
        EXPECT_EQ(error.rfind(std::string("f.json: ") + r.message, 0), 0u) << r.legend << ": " << error;
    }
}

TEST(ModbusTemplate, ShippedTemplatesLoad) {
    for (const std::string file : {"/drivers/modbus/templates/example-flow.json", "/tests/data/modbus/swapped-meter.json"}) {
        CModbusTemplate t;
        std::string error;
        EXPECT_TRUE(loadModbusTemplate(sourceDir() + file, t, error)) << error;
    }
    EXPECT_EQ(findModbusTemplate("../etc/passwd", {"/"}), "");
    EXPECT_EQ(findModbusTemplate("example-flow", {"/nonexistent/", sourceDir() + "/drivers/modbus/templates"}),
              sourceDir() + "/drivers/modbus/templates/example-flow.json");
}

// The schema shipped for editors and the checks the daemon makes must know the
// same members: each member the schema names is not refused as unknown.
TEST(ModbusTemplate, SchemaAndChecksKnowTheSameMembers) {
    std::ifstream in(sourceDir() + "/drivers/modbus/templates/modbus-template.schema.json");
    Json::Value schema;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &schema, nullptr));
    const auto notUnknown = [](const std::string& text, const std::string& member) {
        CModbusTemplate t;
        std::string error;
        parseModbusTemplate(text, "f.json", t, error);
        return error.find(member + ": unknown member") == std::string::npos;
    };
    for (const std::string& m : schema["properties"].getMemberNames())
        EXPECT_TRUE(notUnknown(tpl(", \"" + m + "\": null"), m)) << m;
    for (const std::string& m : schema["$defs"]["value"]["properties"].getMemberNames())
        EXPECT_TRUE(notUnknown(tpl("", ", {\"" + m + "\": null}"), "values[1]." + m)) << m;
    for (const Json::Value& f : schema["$defs"]["format"]["enum"]) {
        const std::string kind = f.asString() == "bit" ? "coil" : "input";
        CModbusTemplate t;
        std::string error;
        EXPECT_TRUE(parseModbusTemplate(tpl("", R"(, {"name": "W", "kind": ")" + kind + R"(", "address": 4, "format": ")" +
                                                    f.asString() + "\"}"),
                                        "f.json", t, error))
            << error;
    }
}

ModbusField field(ModbusField::Format f, bool wordLow, bool byteLow) {
    ModbusField x;
    x.format = f;
    x.wordLowFirst = wordLow;
    x.byteLowFirst = byteLow;
    return x;
}

TEST(ModbusTemplate, WordAndByteOrders) {
    // 1.5f is 3F C0 00 00; the four orders as the registers carry it.
    const struct {
        bool wordLow, byteLow;
        uint16_t regs[2];
    } orders[] = {{false, false, {0x3FC0, 0x0000}},  // ABCD
                  {true, false, {0x0000, 0x3FC0}},   // CDAB
                  {false, true, {0xC03F, 0x0000}},   // BADC
                  {true, true, {0x0000, 0xC03F}}};   // DCBA
    for (const auto& o : orders)
        EXPECT_EQ(decodeModbusNumber(field(ModbusField::Float32, o.wordLow, o.byteLow), o.regs), 1.5);
    const uint16_t u32[] = {0x5678, 0x1234};
    EXPECT_EQ(decodeModbusInteger(field(ModbusField::U32, true, false), u32), 0x12345678u);
    const uint16_t s16[] = {0xFFFE};
    EXPECT_EQ(decodeModbusNumber(field(ModbusField::S16, false, false), s16), -2);
    const uint16_t s32[] = {0xFFFF, 0xFFF6};
    EXPECT_EQ(decodeModbusNumber(field(ModbusField::S32, false, false), s32), -10);
    const uint16_t u64[] = {0x0001, 0x0000, 0x0000, 0x0000};
    EXPECT_EQ(decodeModbusInteger(field(ModbusField::U64, true, false), u64), 1u);
    const uint16_t f64[] = {0x4059, 0x0000, 0x0000, 0x0000};  // 100.0
    EXPECT_EQ(decodeModbusNumber(field(ModbusField::Float64, false, false), f64), 100.0);
    ModbusField text = field(ModbusField::Text, false, false);
    text.textRegisters = 3;
    const uint16_t chars[] = {0x5357, 0x3236, 0x2000};  // "SW26 \0"
    EXPECT_EQ(decodeModbusText(text, chars), "SW26");
}

TEST(ModbusTemplate, ReadsMergeAdjacentRegistersUpToTheLimit) {
    const auto f = [](ModbusKind k, uint16_t a, ModbusField::Format fmt) {
        ModbusField x;
        x.kind = k;
        x.address = a;
        x.format = fmt;
        return x;
    };
    const std::vector<ModbusField> fields = {
        f(ModbusKind::Input, 104, ModbusField::Float32), f(ModbusKind::Input, 100, ModbusField::U32),
        f(ModbusKind::Input, 102, ModbusField::U32),     f(ModbusKind::Input, 120, ModbusField::U16),  // a gap
        f(ModbusKind::Holding, 106, ModbusField::U16),   f(ModbusKind::Coil, 0, ModbusField::Bit),
        f(ModbusKind::Coil, 1, ModbusField::Bit)};
    auto plan = planModbusReads(fields, 125, 2000);
    ASSERT_EQ(plan.size(), 4u);
    EXPECT_EQ(plan[0].kind, ModbusKind::Holding);
    EXPECT_EQ(plan[1].kind, ModbusKind::Input);
    EXPECT_EQ(plan[1].address, 100);
    EXPECT_EQ(plan[1].count, 6);
    EXPECT_EQ(plan[1].items, (std::vector<size_t>{1, 2, 0}));
    EXPECT_EQ(plan[2].address, 120);
    EXPECT_EQ(plan[3].count, 2);
    // Four registers a read: 100..103, then 104..105.
    plan = planModbusReads(fields, 4, 1);
    EXPECT_EQ(plan.size(), 6u);
    EXPECT_EQ(plan[1].count, 4);
}

// ---- the driver against the simulated slave ----

constexpr std::time_t kMeterTime = 1714558500;  // 2024-05-01,10:15:00

struct Rig {
    CModbusSim sim;
    std::unique_ptr<test_support::DriverLine> line;
    CmtdModbusTemplate driver;

    // `model`: the driver's template when it is not the simulator's.
    Rig(const std::string& tplName, const std::string& dir, std::set<int> refuse = {}, std::string model = "")
        : sim([&] {
              SModbusSimConfig c;
              c.templateFile = dir + "/" + tplName + ".json";
              c.serial = tplName == "swapped-meter" ? "SW2603" : "2601";
              c.now = kMeterTime;
              c.clockScale = 1e-9;  // the meter's clock stands still
              c.rateHour = 10;
              c.timing = false;
              c.refuse = std::move(refuse);
              return c;
          }()) {
        std::string error;
        EXPECT_TRUE(sim.load(error)) << error;
        EXPECT_TRUE(sim.open());
        EXPECT_TRUE(sim.start());
        line = std::make_unique<test_support::DriverLine>(sim.slavePath(), "115200");
        EXPECT_TRUE(line->opened);
        CDeviceConfig config;
        config.params = {{"manufacturer", "modbus:" + (model.empty() ? tplName : model)}, {"template_dir", dir}, {"rate_hour", "10"}, {"speed", "115200"},
                         {"systems", "1"}};
        line->attach(driver, config);
    }
};

TEST(ModbusTemplateDriver, ValuesInTheDaemonsUnitsAndOneRecordAnHour) {
    Rig rig("swapped-meter", sourceDir() + "/tests/data/modbus", {1010});
    ASSERT_TRUE(rig.driver.templateLoaded());
    rig.driver.init();
    const auto sys = byName(rig.driver.get_all_system_values());
    EXPECT_EQ(sys.at("SerialNumber").value, "SW2603");
    auto values = byName(rig.driver.get_all_curtime_cur_integ_values());
    EXPECT_EQ(values.at("DateTime").value, "2024-05-01,10:15:00");
    EXPECT_NEAR(std::stod(values.at("Vstd").value), rig.sim.modelValue("Vstd", kMeterTime), 0.001);
    EXPECT_NEAR(std::stod(values.at("Vw").value), rig.sim.modelValue("Vw", kMeterTime), 0.001);
    EXPECT_NEAR(std::stod(values.at("Qw").value), rig.sim.modelValue("Qw", kMeterTime), 1e-4);
    EXPECT_EQ(values.at("Vstd").dim, "m3");
    EXPECT_EQ(values.at("P").dim, "bar");
    EXPECT_EQ(values.count("T"), 0u);  // refused by the slave, its neighbours still came
    EXPECT_EQ(values.count("Valve"), 1u);

    // A second reading in the same hour makes no second record.
    rig.driver.get_all_curtime_cur_integ_values();
    for (int kind : {ARCH_HOURLY, ARCH_DAILY}) {
        std::vector<ArchiveRecord> out;
        test_support::readArchive(rig.driver, kind, 1, kMeterTime + 86400, out);
        ASSERT_EQ(out.size(), 1u) << kind;
        EXPECT_EQ(out[0].timestamp, kMeterTime - kMeterTime % 3600);
        std::map<std::string, std::string> f(out[0].fields.begin(), out[0].fields.end());
        EXPECT_EQ(f["source"], "daemon");
        EXPECT_EQ(f["read_at"], std::to_string(kMeterTime));
        EXPECT_EQ(f.count("Qw"), 0u);  // only totals
        EXPECT_EQ(f["Vstd"], values.at("Vstd").value);
    }
}

TEST(ModbusTemplateDriver, ReadableArchiveOldestFirstWithTheMetersValues) {
    Rig rig("example-flow", sourceDir() + "/drivers/modbus/templates");
    rig.driver.init();
    std::vector<ArchiveRecord> out;
    test_support::readArchive(rig.driver, ARCH_HOURLY, kMeterTime - 5 * 3600, kMeterTime, out);
    ASSERT_EQ(out.size(), 5u);
    for (size_t i = 0; i < out.size(); ++i) {
        const time_t t = kMeterTime - kMeterTime % 3600 - static_cast<time_t>(4 - i) * 3600;
        EXPECT_EQ(out[i].timestamp, t);
        EXPECT_EQ(out[i].fields.back(), (std::pair<std::string, std::string>("source", "meter")));
        EXPECT_NEAR(std::stod(out[i].fields[0].second), rig.sim.modelValue("Vstd", t), 0.006);
    }
    // No daily archive in the map: the daemon keeps its own, none made yet.
    out.clear();
    test_support::readArchive(rig.driver, ARCH_DAILY, 1, kMeterTime, out);
    EXPECT_TRUE(out.empty());
}

TEST(ModbusTemplateDriver, BadTemplateIsNeverPolled) {
    Rig rig("swapped-meter", sourceDir() + "/tests/data/modbus", {}, "missing-template");
    EXPECT_FALSE(rig.driver.templateLoaded());
    EXPECT_THROW(rig.driver.init(), CWrongPacketException);
    EXPECT_EQ(rig.sim.requestsSeen(), 0);
}

}  // namespace
