// SPDX-License-Identifier: Apache-2.0
#include "tools/hostsim/CHostSim.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/TempDir.h"

namespace {

// The simulator answers anything with a JSON-RPC object, never a crash.
TEST(CHostSim, AnswersEveryBody)
{
    CHostSim sim{CHostSimOptions{}};
    std::string error;
    ASSERT_TRUE(sim.loadConfigText(R"({"meters":{"7":{"port_params":{"speed":"9600"}}}})", error));
    struct Row {
        const char* legend;
        const char* body;
        const char* reply;
    } rows[] = {
        {"get_config", R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"7"}})",
         R"({"id":1,"jsonrpc":"2.0","result":{"port_params":{"speed":"9600"}}})"},
        {"unknown meter", R"({"id":2,"method":"get_config","params":{"heat_meter":"8"}})",
         R"({"error":{"code":-32602,"message":"unknown heat_meter 8"},"id":2,"jsonrpc":"2.0"})"},
        {"meter id not a string", R"({"id":3,"method":"get_config","params":{"heat_meter":7}})",
         R"({"error":{"code":-32602,"message":"Invalid params: \"heat_meter\" must be a string"},"id":3,"jsonrpc":"2.0"})"},
        {"no config2 configured", R"({"id":4,"method":"get_config2"})",
         R"({"error":{"code":-32602,"message":"no \"config2\" in the configuration"},"id":4,"jsonrpc":"2.0"})"},
        {"publishing", R"({"id":5,"method":"put_all_current_values","params":[]})",
         R"({"id":5,"jsonrpc":"2.0","result":"ok"})"},
        {"not JSON", "xx", R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})"},
        {"empty body", "", R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})"},
        {"no method", R"({"id":6})", R"({"error":{"code":-32600,"message":"Invalid Request"},"id":6,"jsonrpc":"2.0"})"},
        {"array body", "[1,2]", R"({"error":{"code":-32600,"message":"Invalid Request"},"id":null,"jsonrpc":"2.0"})"},
        {"unknown method", R"({"id":7,"method":"reboot"})",
         R"({"error":{"code":-32601,"message":"Method not found"},"id":7,"jsonrpc":"2.0"})"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        EXPECT_EQ(sim.handle(row.body), std::string(row.reply) + "\n");
    }
}

TEST(CHostSim, RejectsBadConfiguration)
{
    CHostSim sim{CHostSimOptions{}};
    std::string error;
    for (const char* text : {"{", "[]", R"({"meters":[1]})"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(sim.loadConfigText(text, error));
        EXPECT_FALSE(error.empty());
    }
    EXPECT_FALSE(sim.loadConfigFile("/nonexistent/hostsim.json", error));
}

// The record file gets every request whole, one JSON line each.
TEST(CHostSim, RecordsOneJsonLinePerRequest)
{
    test_support::TempDir dir("hostsim_test");
    const std::string path = dir / "record.jsonl";
    {
        CHostSimOptions o;
        o.hostPort = 0;
        o.sensorsPort = 0;
        o.recordFile = path;
        o.garbage = 1;
        CHostSim sim(o);
        std::string error;
        ASSERT_TRUE(sim.Start(error)) << error;
        EXPECT_EQ(sim.handle("{\"id\":1,\"method\":\"put_one_value\"}\n"), CHostSim::kGarbageReply);
        sim.handle("{\n\"id\": 2,\n\"method\": \"x\"}");
        sim.handle("not\njson");
    }
    std::ifstream in(path);
    std::string line;
    std::vector<std::string> lines;
    while (std::getline(in, line))
        lines.push_back(line);
    EXPECT_EQ(lines, (std::vector<std::string>{R"({"id":1,"method":"put_one_value"})", R"({"id":2,"method":"x"})",
                                               R"("not\njson")"}));
}

}  // namespace
