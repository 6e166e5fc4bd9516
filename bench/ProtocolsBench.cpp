// SPDX-License-Identifier: Apache-2.0
// Meter-line hot paths: the check sums, the IEC 61107 reply split and the
// M4 element decoder. Each runs once per byte or per value of a meter reply,
// so their cost is what the polling thread spends besides waiting on the line.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "protocols/CGost61107.h"
#include "protocols/Crc16.h"
#include "protocols/Crc16Arc.h"
#include "protocols/M4.h"
#include "transport/CConnector.h"

namespace {

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(i * 31 + 7);
    return v;
}

// The connector is never opened: the benchmarks only use framing and parsing.
// The LED threads it starts blink into /dev/null.
CConnector& idleConnector() {
    static CConnector connector(PortParams{{"name", "/dev/null"}}, LedPaths{"/dev/null", "/dev/null"});
    return connector;
}

// One EK270 interval record as the volume corrector sends it, check sum included.
std::string ekRecord(int n) {
    char body[256];
    std::snprintf(body, sizeof body,
                  "(%d)(%d)(2024-05-%02d,%02d:00:00)(%d.%04d)(%d.%04d)(%d.%04d)(0.9971)(1.0342)"
                  "(0)(0)(0)(0)(0)(0x8104)",
                  n, 100000 + n, 1 + n % 28, n % 24, 12 + n % 7, n * 37 % 10000, 1234567 + n * 13, n * 91 % 10000,
                  1200000 + n * 11, n * 17 % 10000);
    std::string text = body;
    return text + "(" + Crc16Arc::hex(text) + ")\r\n";
}

// A block of `records` archive lines as one reply: STX, lines, EOT.
std::vector<uint8_t> archiveBlock(int records) {
    std::string text(1, static_cast<char>(CGost61107Connector::STX));
    for (int i = 0; i < records; ++i)
        text += ekRecord(i);
    text += static_cast<char>(CGost61107Connector::EOT);
    return std::vector<uint8_t>(text.begin(), text.end());
}

void BM_Crc16Xmodem(benchmark::State& state) {
    auto data = pattern(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Crc16::xmodem(data.data(), data.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc16Xmodem)->Arg(16)->Arg(256)->Arg(4096);

void BM_Crc16Modbus(benchmark::State& state) {
    auto data = pattern(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Crc16::modbus(data.data(), data.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc16Modbus)->Arg(8)->Arg(256);

void BM_Crc16ArcRecord(benchmark::State& state) {
    // The record check of the archive reader: the text before the check sum.
    std::string line = ekRecord(42);
    std::string text = line.substr(0, line.rfind('('));
    for (auto _ : state)
        benchmark::DoNotOptimize(Crc16Arc::hex(text));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Crc16ArcRecord);

void BM_Iec61107Bcc(benchmark::State& state) {
    CGost61107 iec(idleConnector(), 1, "bench");
    auto block = archiveBlock(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(iec.bcc(block.data() + 1, block.size() - 1));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(block.size()));
}
BENCHMARK(BM_Iec61107Bcc)->Arg(1)->Arg(10);

void BM_Iec61107MakeReadPacket(benchmark::State& state) {
    CGost61107 iec(idleConnector(), 1, "bench");
    SGost61107Request rq{"Read Hourly Data 1st", SGost61107Request::ReadR1, "3:V.0",
                         "3;2024-05-01,06:00:00;2024-05-16,06:00:00;1"};
    for (auto _ : state)
        benchmark::DoNotOptimize(iec.makePacket(rq));
}
BENCHMARK(BM_Iec61107MakeReadPacket);

void BM_Iec61107ParseValue(benchmark::State& state) {
    // A current value: STX "2:300.0(1234567.8912*m3)" ETX
    CGost61107 iec(idleConnector(), 1, "bench");
    SGost61107Request rq{"Read Std. Volume", SGost61107Request::ReadR1, "2:300.0", ""};
    iec.makePacket(rq);
    std::string text = "\x02" "2:300.0(1234567.8912*m3)\x03";
    std::vector<uint8_t> reply(text.begin(), text.end());
    std::vector<std::string> values;
    for (auto _ : state) {
        iec.parse(rq, values, reply.data(), reply.size());
        benchmark::DoNotOptimize(values.data());
    }
}
BENCHMARK(BM_Iec61107ParseValue);

void BM_Iec61107ParseArchiveBlock(benchmark::State& state) {
    // One archive reply block of N records split into its (...) fields.
    CGost61107 iec(idleConnector(), 1, "bench");
    SGost61107Request rq{"Read Hourly Data Next", SGost61107Request::ReadR1, "3:V.0", ""};
    iec.makePacket(rq);
    auto block = archiveBlock(static_cast<int>(state.range(0)));
    std::vector<std::string> values;
    for (auto _ : state) {
        iec.parse(rq, values, block.data(), block.size());
        benchmark::DoNotOptimize(values.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(block.size()));
}
BENCHMARK(BM_Iec61107ParseArchiveBlock)->Arg(1)->Arg(10);

void BM_M4GetParamValue(benchmark::State& state) {
    // A reply body of typical elements: float, double, integer, date+time, text, flags.
    const std::vector<uint8_t> body = {
        0x43, 4, 0x00, 0x00, 0x48, 0x42,                          // float 50.0
        0x44, 8, 0x39, 0x30, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3F,  // 12345 + 0.5
        0x41, 4, 0x2A, 0x00, 0x00, 0x00,                          // integer 42
        0x49, 6, 24, 5, 16, 6, 0, 0,                              // 16.05.2024 06:00:00
        0x16, 5, 'm', '3', '/', 'c', 'h',                         // text
        0x4B, 4, 0x04, 0x81, 0x00, 0x00,                          // flags
    };
    M4::CM4 m4(idleConnector(), 0, 1, "bench");
    M4::ParamValue value;
    int elements = 0;
    for (auto _ : state) {
        for (size_t pos = 0; pos < body.size(); pos += value.size()) {
            if (!m4.GetParamValue(body.data() + pos, body.size() - pos, value))
                state.SkipWithError("element did not decode");
            ++elements;
        }
    }
    state.SetItemsProcessed(elements);
}
BENCHMARK(BM_M4GetParamValue);

}  // namespace
