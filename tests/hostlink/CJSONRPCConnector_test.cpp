// SPDX-License-Identifier: Apache-2.0
#include "hostlink/CJSONRPCConnector.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hostlink/HostLinkFixture.h"
#include "tools/hostsim/CHostSim.h"

namespace {

using std::chrono::milliseconds;

CHostSimOptions freePorts()
{
    CHostSimOptions o;
    o.hostPort = 0;
    o.sensorsPort = 0;
    return o;
}

const char* kConfig = R"({
  "meters": {
    "42": {"port_params": {"manufacturer": "km-5", "speed": 9600}, "systems": ["a", "", "b"]}
  },
  "config2": {"port_params": {"name": "/dev/ttyS2"},
              "drivers": [{"manufacturer": "vkt-7"}, {"manufacturer": "VKT-7"}, {"manufacturer": "km-5m"},
                          {"manufacturer": "other"}, {"manufacturer": "vkt-9", "period_current": ""},
                          {"manufacturer": "vkt-7", "period_current": "15"}]}
})";

// A started simulator; `config` nullptr: none loaded.
struct Running {
    LogWatch log;
    CHostSim sim;
    explicit Running(const char* config = kConfig, CHostSimOptions o = freePorts()) : sim(o)
    {
        std::string error;
        if (config) {
            EXPECT_TRUE(sim.loadConfigText(config, error)) << error;
        }
        EXPECT_TRUE(sim.Start(error)) << error;
    }
};

CHostSimOptions garbage(int answers)
{
    CHostSimOptions o = freePorts();
    o.garbage = answers;
    return o;
}

CValueRecord value(const char* name, const char* text, long long t, const char* error = "")
{
    CValueRecord v;
    v.name = name;
    v.value = text;
    v.dim = "m3";
    v.quality = 192;
    v.error = error;
    v.sys = "1";
    v.timestamp = t;
    return v;
}

// Every method's request exactly as it goes on the wire, ids rising by one over the connector's life.
TEST(CJSONRPCConnector, RequestTextsAndConsecutiveIds)
{
    Running r;
    CJSONRPCConnector link("42", r.sim.hostUrl(), r.sim.sensorsUrl());
    CDeviceConfig c1, c2;
    Json::Value reply;
    struct Row {
        const char* legend;
        std::function<void()> call;
        std::vector<std::string> expected;
    } rows[] = {
        {"get_config", [&] { EXPECT_TRUE(link.GetInitParameters1(c1)); },
         {R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"42"}})"}},
        {"get_config2 has no params", [&] { EXPECT_TRUE(link.GetInitParameters2(c2)); },
         {R"({"id":2,"jsonrpc":"2.0","method":"get_config2"})"}},
        {"put_one_value, one request per value",
         [&] { link.SendParameters2({value("P", "1.5", 100), value("T", "20", 101), value("Q", "0", 102, "E1")}); },
         {R"({"id":3,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"m3","error":"","opc_quality":192,"sys":"1","timestamp":100,"value":"1.5","value_name":"P"}})",
          R"({"id":4,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"m3","error":"","opc_quality":192,"sys":"1","timestamp":101,"value":"20","value_name":"T"}})",
          R"({"id":5,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"m3","error":"E1","opc_quality":192,"sys":"1","timestamp":102,"value":"0","value_name":"Q"}})"}},
        {"put_current_value carries no dim, error or sys",
         [&] { link.SendParameters_right({value("P", "1.5", 1700000000)}); },
         {R"({"id":6,"jsonrpc":"2.0","method":"put_current_value","params":{"opc_quality":192,"timestamp":1700000000,"value":"1.5","value_name":"P"}})"}},
        {"put_all_current_values", [&] { EXPECT_TRUE(link.SendAllCurrentValues({value("P", "1", 5), value("T", "2", 6)})); },
         {R"({"id":7,"jsonrpc":"2.0","method":"put_all_current_values","params":[{"dim":"m3","error":"","name":"P","quality":192,"sys":"1","timestamp":5,"value":"1"},{"dim":"m3","error":"","name":"T","quality":192,"sys":"1","timestamp":6,"value":"2"}]})"}},
        {"put_all_current_values, empty read still sends", [&] { EXPECT_TRUE(link.SendAllCurrentValues({})); },
         {R"({"id":8,"jsonrpc":"2.0","method":"put_all_current_values","params":[]})"}},
        {"create_action, relay 1 on", [&] { EXPECT_TRUE(link.ExecSensorsJSONRPCFunc(true, 1)); },
         {R"({"id":9,"jsonrpc":"2.0","method":"create_action","params":["EventRelay","SensorTeploKXbinary","teploKX.SRVC_OUT2",true]})"}},
        {"create_action, relay 2 off", [&] { EXPECT_TRUE(link.ExecSensorsJSONRPCFunc(false, 2)); },
         {R"({"id":10,"jsonrpc":"2.0","method":"create_action","params":["EventRelay","SensorTeploKXbinary","teploKX.SRVC_OUT3",false]})"}},
        {"ExecJSONRPCFunc", [&] { EXPECT_TRUE(link.ExecJSONRPCFunc("get_config2", Json::Value(), reply)); },
         {R"({"id":11,"jsonrpc":"2.0","method":"get_config2"})"}},
    };
    size_t seen = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        row.call();
        std::vector<std::string> got = r.sim.requests();
        ASSERT_EQ(got.size(), seen + row.expected.size());
        for (size_t i = 0; i < row.expected.size(); ++i)
            EXPECT_EQ(got[seen + i], row.expected[i] + "\n");
        seen = got.size();
    }
    EXPECT_EQ(reply["result"]["port_params"]["name"].asString(), "/dev/ttyS2");
    EXPECT_EQ(r.log.count("CJSONRPCConnector::ExecJSONRPCFunc query is {\"id\":1,"), 1u);
    EXPECT_EQ(r.log.count("CJSONRPCConnector::SendParameters2 query is {\"id\":3,"), 1u);
    EXPECT_EQ(r.log.count("CJSONRPCConnector::SendParameters_right query is {\"id\":6,"), 1u);
    EXPECT_EQ(r.log.count("CJSONRPCConnector::ExecSensorsJSONRPCFunc(): send request to '" + r.sim.sensorsUrl() + "'"), 2u);
}

TEST(CJSONRPCConnector, ReplyIsEchoedOnStandardOutput)
{
    Running r;
    CJSONRPCConnector link("42", r.sim.hostUrl(), r.sim.sensorsUrl());
    CDeviceConfig c;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(link.GetInitParameters2(c));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("result JSONRPC{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":", 0), 0u) << out;
    EXPECT_EQ(out.back(), '\n');
}

// "get_config": systems joining, period_current defaults by manufacturer, typed copies.
TEST(CJSONRPCConnector, GetConfigDecoding)
{
    struct Row {
        const char* legend;
        const char* result;  // the "get_config" result for the meter
        const char* systems;
        const char* period;
        long long serial;
        int speed;
        int dataRate;
    } rows[] = {
        {"a, empty, b", R"({"port_params":{},"systems":["a","","b"]})", "a;b;", "20", 0, 0, 0},
        {"empty systems array", R"({"port_params":{},"systems":[]})", "", "20", 0, 0, 0},
        {"numbers as systems", R"({"systems":[1,"x"]})", "1;x;", "20", 0, 0, 0},
        {"km-5 exactly", R"({"port_params":{"manufacturer":"km-5"}})", "", "300", 0, 0, 0},
        {"km-5 inside a longer name", R"({"port_params":{"manufacturer":"tbn km-5m"}})", "", "300", 0, 0, 0},
        {"vkt-7", R"({"port_params":{"manufacturer":"vkt-7"}})", "", "14400", 0, 0, 0},
        {"vkt-9", R"({"port_params":{"manufacturer":"vkt-9"}})", "", "5400", 0, 0, 0},
        {"VKT-7 in capitals is another maker", R"({"port_params":{"manufacturer":"VKT-7"}})", "", "20", 0, 0, 0},
        {"KM-5 in capitals", R"({"port_params":{"manufacturer":"KM-5"}})", "", "20", 0, 0, 0},
        {"given period kept", R"({"port_params":{"manufacturer":"vkt-7","period_current":"60"}})", "", "60", 0, 0, 0},
        {"empty period replaced", R"({"port_params":{"manufacturer":"vkt-9","period_current":""}})", "", "5400", 0, 0, 0},
        {"typed copies", R"({"port_params":{"serial":"00123abc","speed":9600,"data_rate":"300"}})", "", "20", 123, 9600, 300},
        {"non-numeric numbers give 0", R"({"port_params":{"serial":"abc","speed":"fast","data_rate":""}})", "", "20", 0, 0, 0},
        {"nested value kept as JSON text", R"({"port_params":{"extra":{"k":1}}})", "", "20", 0, 0, 0},
        {"result that is not an object", R"("oops")", "", "20", 0, 0, 0},
        {"port_params that is an array", R"({"port_params":[1,2],"systems":"a"})", "", "20", 0, 0, 0},
    };
    std::string config = R"({"meters":{)";
    for (size_t i = 0; i < std::size(rows); ++i)
        config += (i ? "," : "") + std::string("\"m") + std::to_string(i) + "\":" + rows[i].result;
    config += "}}";
    Running r(config.c_str());
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].legend);
        CJSONRPCConnector link("m" + std::to_string(i), r.sim.hostUrl(), r.sim.sensorsUrl());
        CDeviceConfig c;
        ASSERT_TRUE(link.GetInitParameters1(c));
        EXPECT_EQ(c.meter_id, "m" + std::to_string(i));
        EXPECT_EQ(c.get("systems"), rows[i].systems);
        EXPECT_EQ(c.get("period_current"), rows[i].period);
        EXPECT_EQ(c.serial, rows[i].serial);
        EXPECT_EQ(c.speed, rows[i].speed);
        EXPECT_EQ(c.data_rate, rows[i].dataRate);
    }
    CJSONRPCConnector link("m11", r.sim.hostUrl(), r.sim.sensorsUrl());
    CDeviceConfig c;
    ASSERT_TRUE(link.GetInitParameters1(c));
    EXPECT_EQ(c.serial_text, "00123abc");
    EXPECT_EQ(c.get("speed"), "9600");
    CJSONRPCConnector nested("m13", r.sim.hostUrl(), r.sim.sensorsUrl());
    CDeviceConfig n;
    ASSERT_TRUE(nested.GetInitParameters1(n));
    EXPECT_EQ(n.get("extra"), R"({"k":1})");
}

// "get_config2": one entry per driver in order; defaults only for the three known makers.
TEST(CJSONRPCConnector, GetConfig2Drivers)
{
    Running r;
    CJSONRPCConnector link("42", r.sim.hostUrl(), r.sim.sensorsUrl());
    CDeviceConfig c;
    ASSERT_TRUE(link.GetInitParameters2(c));
    EXPECT_EQ(c.get("name"), "/dev/ttyS2");
    EXPECT_FALSE(c.has("period_current"));
    const char* expected[] = {"14400", nullptr, "300", nullptr, "5400", "15"};
    ASSERT_EQ(c.drivers.size(), std::size(expected));
    for (size_t i = 0; i < c.drivers.size(); ++i) {
        SCOPED_TRACE(i);
        auto it = c.drivers[i].find("period_current");
        if (expected[i])
            EXPECT_TRUE(it != c.drivers[i].end() && it->second == expected[i]);
        else
            EXPECT_TRUE(it == c.drivers[i].end());
    }
}

// A host service that is down: the send error with the libcurl code is
// written once (and nothing on standard error), the pauses double from 5 ms,
// and the call returns once the service comes up on that port, with one line
// giving the outage's length.
TEST(CJSONRPCConnector, RetriesUntilHostServiceComesUp)
{
    LogWatch log;
    LateHostService host(kConfig);
    CJSONRPCConnector link("42", host.url(), host.url());
    auto clock = std::make_shared<StepClock>();
    link.setClock(clock);
    clock->onPause = [&](milliseconds) {
        if (clock->pauses().size() == 4)
            host.up();
    };
    CDeviceConfig c;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(link.GetInitParameters1(c));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // libcurl's words go to the log only
    ASSERT_TRUE(host.started()) << host.error();
    EXPECT_EQ(log.count("CJSONRPCConnector::SendParameters - libcurl: Failed to connect to 127.0.0.1 port "), 1u);

    EXPECT_EQ(c.get("systems"), "a;b;");
    EXPECT_EQ(log.count("CJSONRPCConnector::SendParameters - Error while sending data! retry!!! wait 5 sec. Error code - 7"), 1u);
    EXPECT_EQ(log.count("CJSONRPCConnector::SendParameters - the host service answered after 0 s and 4 failed attempts"), 1u);
    EXPECT_EQ(clock->pauses(), (std::vector<milliseconds>{milliseconds(5), milliseconds(10), milliseconds(20), milliseconds(40)}));
    EXPECT_EQ(host.sim().requests().size(), 1u);
}

// The sensors service gets at most 50 attempts, 5 ms apart after a refused
// connection (the host link's lines say "wait 5 sec"; the pause is 5 ms).
TEST(CJSONRPCConnector, SensorsServiceDownGivesUpAfter50Attempts)
{
    LogWatch log;
    RefusingPort down;
    CJSONRPCConnector link("42", down.url(), down.url());
    auto clock = std::make_shared<StepClock>();
    link.setClock(clock);
    EXPECT_FALSE(link.ExecSensorsJSONRPCFunc(true, 1));
    EXPECT_EQ(log.count("CJSONRPCConnector::ExecSensorsJSONRPCFunc() - ERROR SENDING DATA = 7"), 50u);
    EXPECT_EQ(clock->pauses(), std::vector<milliseconds>(50, milliseconds(5)));
}

TEST(CJSONRPCConnector, NonJsonReplyIsLoggedAndRetried)
{
    Running r(kConfig, garbage(2));
    auto& log = r.log;
    auto& sim = r.sim;
    CJSONRPCConnector link("42", sim.hostUrl(), sim.sensorsUrl());
    CDeviceConfig c;
    ASSERT_TRUE(link.GetInitParameters1(c));
    EXPECT_EQ(c.get("period_current"), "300");
    // The second answer of the same kind is counted, not written again.
    EXPECT_EQ(log.count("CJSONRPCConnector::SendParameters - Error while parsing data! retry!!! wait 5 sec"), 1u);
    EXPECT_EQ(log.count(std::string("Response String - ") + CHostSim::kGarbageReply), 1u);
    EXPECT_EQ(log.count("the host service answered after 0 s and 2 failed attempts"), 1u);
    auto requests = sim.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], requests[2]);  // the same request, same id, again
}

// A JSON-RPC error object is a parsed reply: a Warning, no retry, empty maps, defaults still applied.
TEST(CJSONRPCConnector, ErrorReplyLeavesConfigEmpty)
{
    CHostSimOptions o = freePorts();
    o.rpcError = true;
    Running r(nullptr, o);
    auto& log = r.log;
    auto& sim = r.sim;
    CJSONRPCConnector link("42", sim.hostUrl(), sim.sensorsUrl());
    CDeviceConfig c;
    ASSERT_TRUE(link.GetInitParameters1(c));
    EXPECT_EQ(c.get("period_current"), "20");
    EXPECT_EQ(c.get("systems"), "");
    EXPECT_EQ(sim.requests().size(), 1u);
    const std::string error = "CJSONRPCConnector::SendParameters - the host service answered with an error: {\"code\":-32000,";
    EXPECT_EQ(log.count(error), 1u);
    EXPECT_EQ(log.countContaining(error, logger::WARNING), 1);
}

// An orderly shutdown while the host service is down ends the retry loop.
TEST(CJSONRPCConnector, CancelFlagEndsRetryLoop)
{
    LogWatch log;
    RefusingPort down;
    CJSONRPCConnector link("42", down.url(), down.url());
    std::atomic<bool> cancel{false};
    link.setCancelFlag(&cancel);
    bool ok = true;
    std::thread caller([&] { ok = link.SendAllCurrentValues({value("P", "1", 1)}); });
    ASSERT_TRUE(log.waitFor(test_support::LogCapture::kAny, "CJSONRPCConnector::SendParameters - Error while sending data! retry!!!"));
    cancel = true;
    caller.join();
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.count("CJSONRPCConnector::SendParameters - Error while sending data!"),
              log.count("Error while sending data! retry!!!") + 1);
}

// A host service that takes the connection but never answers must not hold
// the shutdown: the raised flag aborts the transfer in flight.
TEST(CJSONRPCConnector, CancelFlagAbortsHangingExchange)
{
    LogWatch log;
    RefusingPort silent(true);
    CJSONRPCConnector link("42", silent.url(), silent.url());
    std::atomic<bool> cancel{false};
    link.setCancelFlag(&cancel);
    bool ok = true;
    std::thread caller([&] {
        Json::Value reply;
        ok = link.ExecJSONRPCFunc("get_config2", Json::Value(), reply);
    });
    ASSERT_TRUE(log.waitFor(test_support::LogCapture::kAny, "CJSONRPCConnector::ExecJSONRPCFunc query is "));
    cancel = true;
    caller.join();
    EXPECT_FALSE(ok);
}

TEST(CJSONRPCConnector, WrongRelayNumberSendsNothing)
{
    Running r;
    CJSONRPCConnector link("42", r.sim.hostUrl(), r.sim.sensorsUrl());
    for (int number : {0, 3, -1}) {
        SCOPED_TRACE(number);
        EXPECT_FALSE(link.ExecSensorsJSONRPCFunc(true, number));
        EXPECT_EQ(r.log.count("CJSONRPCConnector::ExecSensorsJSONRPCFunc - WRONG RS232 NUMBER " + std::to_string(number)), 1u);
    }
    EXPECT_TRUE(r.sim.requests().empty());
}

TEST(CJSONRPCConnector, SensorsServiceGarbageCountsAsAttempt)
{
    Running r(nullptr, garbage(1));
    CJSONRPCConnector link("42", r.sim.hostUrl(), r.sim.sensorsUrl());
    EXPECT_TRUE(link.ExecSensorsJSONRPCFunc(true, 2));
    EXPECT_EQ(r.log.count("CJSONRPCConnector::ExecSensorsJSONRPCFunc() - ERROR PARSING DATA"), 1u);
    EXPECT_EQ(r.sim.requests().size(), 2u);
}

}  // namespace
