// SPDX-License-Identifier: Apache-2.0
// Storing one batch of 360 hourly records (15 days, what a first run hands the
// store at once). Each batch is written to a temporary file, fsync'ed, renamed
// and the folder fsync'ed, so on a real disk the figure is the disk's flush
// latency; on tmpfs it is the store's own CPU cost.
//
// Where: MTD_BENCH_TMPFS (default /dev/shm) and MTD_BENCH_DISK (default the
// current directory, which should lie on the disk under test).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/ArchiveRecord.h"
#include "core/logger.h"
#include "storage/GasFileConnector.h"

namespace {

constexpr int kBatch = 360;

std::vector<ArchiveRecord> hourlyBatch(long long first) {
    std::vector<ArchiveRecord> records;
    records.reserve(kBatch);
    for (int i = 0; i < kBatch; ++i) {
        ArchiveRecord r;
        r.timestamp = first + i * 3600LL;
        r.fields = {{"Npp", std::to_string(i)},
                    {"ArchIdx", std::to_string(100000 + i)},
                    {"DateTime", "2024-05-16,06:00:00"},
                    {"Vstd", "12.3456"},
                    {"Vstd.sum", std::to_string(1234567 + i) + ".1234"},
                    {"Vw.sum", std::to_string(1200000 + i) + ".5678"},
                    {"Kcomp", "0.9971"},
                    {"Kcorr", "1.0342"},
                    {"status 2", "0"},
                    {"status 4", "0"},
                    {"status 7", "0"},
                    {"status 6", "0"},
                    {"system status", "0"},
                    {"archiving reason", "0x8104"},
                    {"check sum", "A1B2"}};
        records.push_back(std::move(r));
    }
    return records;
}

std::string benchDir(const char* env, const char* fallback) {
    const char* base = std::getenv(env);
    std::string dir = std::string(base && *base ? base : fallback) + "/mtd_bench.XXXXXX";
    std::vector<char> name(dir.begin(), dir.end());
    name.push_back('\0');
    if (!mkdtemp(name.data()))
        return {};
    return name.data();
}

void storeBatches(benchmark::State& state, const char* env, const char* fallback) {
    // Warnings and errors of the store on standard error, so a failed batch says why.
    logger* log = logger::instance("mtd_bench", false);
    log->setStderr(true);
    log->setLevel(logger::WARNING);
    const std::string dir = benchDir(env, fallback);
    if (dir.empty()) {
        state.SkipWithError("cannot create the temporary folder");
        return;
    }
    // The root exists on a controller (a mount point); the store makes what lies below.
    std::filesystem::create_directories(dir + "/storage");
    std::filesystem::create_directories(dir + "/control");
    {
        GasFileConnector store("12", dir + "/storage/", dir + "/control/");
        long long first = 1700000000;
        for (auto _ : state) {
            state.PauseTiming();
            auto records = hourlyBatch(first);  // each batch newer than the last, so nothing is dropped
            first += kBatch * 3600LL;
            state.ResumeTiming();
            if (!store.StoreRecords(ARCH_HOURLY, records))
                state.SkipWithError("StoreRecords failed");
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

void BM_StoreRecords360_tmpfs(benchmark::State& state) {
    storeBatches(state, "MTD_BENCH_TMPFS", "/dev/shm");
}
BENCHMARK(BM_StoreRecords360_tmpfs)->Unit(benchmark::kMicrosecond);

void BM_StoreRecords360_disk(benchmark::State& state) {
    storeBatches(state, "MTD_BENCH_DISK", std::filesystem::current_path().c_str());
}
BENCHMARK(BM_StoreRecords360_disk)->Unit(benchmark::kMicrosecond);

}  // namespace
