// SPDX-License-Identifier: Apache-2.0
// The memory floor of the daemon's libraries: a program that links libcurl,
// jsoncpp and libmodbus and initialises each of them the way the daemon does
// (curl_global_init and one easy handle, one JSON document parsed and written,
// one RTU context), then waits for SIGTERM/SIGINT so that scripts/bench.sh can
// read its /proc figures beside the daemon's.

#include <curl/curl.h>
#include <json/json.h>
#include <modbus.h>
#include <signal.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

int main() {
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        std::fprintf(stderr, "mtd_bench_floor: curl_global_init failed\n");
        return 1;
    }
    CURL* curl = curl_easy_init();
    if (curl)
        curl_easy_setopt(curl, CURLOPT_URL, "http://127.0.0.1:8082/");

    Json::Value doc;
    Json::Reader reader;
    reader.parse(R"({"jsonrpc":"2.0","id":1,"result":{"model":"ek270","port_params":{"speed":"9600"}}})", doc);
    Json::FastWriter writer;
    std::string text = writer.write(doc);

    modbus_t* ctx = modbus_new_rtu("/dev/null", 9600, 'N', 8, 1);

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    std::printf("ready %zu\n", text.size());
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stop, &sig);

    if (ctx)
        modbus_free(ctx);
    if (curl)
        curl_easy_cleanup(curl);
    curl_global_cleanup();
    return 0;
}
