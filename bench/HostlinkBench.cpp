// SPDX-License-Identifier: Apache-2.0
// Building the one request that publishes a cycle's current values. It runs
// once per cycle and meter; the EK270 publishes about twenty values.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "hostlink/CJSONRPCConnector.h"

namespace {

std::vector<CValueRecord> currentValues(int count) {
    static const char* const names[] = {"Vstd", "Vw", "Vstd.err", "Vw.err", "Vstd.sum", "Vw.sum", "T", "P", "K",
                                        "Z", "PassT", "PassP", "PassCO2", "PassH2", "PassN2", "PassS"};
    std::vector<CValueRecord> values;
    for (int i = 0; i < count; ++i) {
        CValueRecord v;
        v.name = names[i % 16];
        v.value = std::to_string(1234567 + i * 7919) + ".4321";
        v.dim = "m3";
        v.sys = "1";
        v.timestamp = 1715839200 + i;
        values.push_back(v);
    }
    return values;
}

void BM_BuildAllCurrentValuesRequest(benchmark::State& state) {
    CJSONRPCConnector link("12", "http://127.0.0.1:1/", "http://127.0.0.1:1/");
    auto values = currentValues(static_cast<int>(state.range(0)));
    size_t bytes = 0;
    for (auto _ : state) {
        std::string request = link.BuildAllCurrentValuesRequest(values);
        bytes = request.size();
        benchmark::DoNotOptimize(request.data());
    }
    state.counters["request_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_BuildAllCurrentValuesRequest)->Arg(20);

}  // namespace
