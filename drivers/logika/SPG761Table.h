// SPDX-License-Identifier: Apache-2.0
#pragma once
// Every number the SPG761 driver asks the meter for, in one place, each with
// where it comes from. "assumed" marks a number no public source gives (the
// maker's parameter tables are not published): correct it here when a real
// meter or its parameter list says otherwise. A further corrector of the same
// SPbus family is a copy of this table with its own numbers.
//
// Source tags: [CS] the maker's own C# meter library (Logika.Meters.Logika6,
// TSPG761, Logika.Comms.Protocols.SPBus.SPBusProtocol); [LP] its Python port
// (github.com/Vadsxd/LogikaPython, Logika/Meters/Logika6.py, __6N/SPG761_1.py).

#include <cstdint>

#include "core/ArchiveRecord.h"
#include "protocols/SpNet.h"

namespace spg761 {

enum class Channel : uint8_t { Common, Pipe };  // Pipe: the configured pipeline (1..3)

struct Param {
    const char* name;  // the request name of the log lines
    uint32_t function;
    Channel channel;
    uint16_t number;
    uint8_t index;  // 0x0C: first element
    uint8_t count;  // 0x0C: number of elements
    const char* source;
};

inline constexpr Param kParams[] = {
    // "761" + ".1v"/".2v" and more on the new generation (SPG761.1, .2), anything else the old SPG761.
    {"Read Model", SpNet::kFnReadParam, Channel::Common, 99, 0, 0, "[CS] SPBusProtocol.MeterTypeFromResponse"},
    // New generation: 099 is an array, element 0 the model, element 1 the factory number.
    {"Read Model And Serial", SpNet::kFnReadArray, Channel::Common, 99, 0, 2, "[LP] __6N/SPG761_1.py, [CS]"},
    // ИД; the old generation has no other number to check the meter by.
    {"Read Identifier", SpNet::kFnReadParam, Channel::Common, 8, 0, 0, "[CS] Logika6 ImportantTag.Ident"},
    {"Read Rate Hour", SpNet::kFnReadParam, Channel::Common, 24, 0, 0, "[CS] Logika6 ImportantTag.RHour (ЧР)"},
    {"Read Rate Day", SpNet::kFnReadParam, Channel::Common, 25, 0, 0, "[CS] Logika6 ImportantTag.RDay (СР)"},
    {"Read Eng Units", SpNet::kFnReadParam, Channel::Common, 30, 0, 0, "[CS] TSPG761 ImportantTag.EngUnits"},
    {"Read Date", SpNet::kFnReadParam, Channel::Common, 60, 0, 0, "[CS] SPBusProtocol.GetDeviceClock: dd-MM-yy"},
    {"Read Time", SpNet::kFnReadParam, Channel::Common, 61, 0, 0, "[CS] SPBusProtocol.GetDeviceClock: HH:mm:ss"},
    {"Read Pressure", SpNet::kFnReadParam, Channel::Pipe, 150, 0, 0, "assumed"},
    {"Read Temperature", SpNet::kFnReadParam, Channel::Pipe, 151, 0, 0, "assumed"},
    {"Read Work Flow", SpNet::kFnReadParam, Channel::Pipe, 152, 0, 0, "assumed"},
    {"Read Std. Flow", SpNet::kFnReadParam, Channel::Pipe, 153, 0, 0, "assumed"},
    {"Read Correction", SpNet::kFnReadParam, Channel::Pipe, 154, 0, 0, "assumed"},
    {"Read Std. Volume", SpNet::kFnReadParam, Channel::Pipe, 160, 0, 0, "assumed"},
    {"Read Work Volume", SpNet::kFnReadParam, Channel::Pipe, 161, 0, 0, "assumed"},
};

// Hourly and daily archives are slice archives: 0x19 gives the columns, 0x18
// one slice; both name the archive as channel 0 and the archive number ([CS]
// SPBusPacket.BuildReadArchive*Packet). The journal is read with 0x0E on its
// channel.
struct Archive {
    int archType;
    uint16_t number;
    Channel channel;  // 0x0E only
    const char* source;
};

inline constexpr Archive kArchives[] = {
    {ARCH_HOURLY, 65, Channel::Common, "assumed"},
    {ARCH_DAILY, 66, Channel::Common, "assumed"},
    {ARCH_JOURNAL_EVENT, 96, Channel::Common, "assumed"},  // nonstandard situations
};

// The slice columns stored, in this order: the descriptor names each column
// by channel and parameter number, and the driver keeps those of the
// configured pipeline (Channel::Pipe) or of the common channel it knows.
struct Column {
    Channel channel;
    uint16_t number;
    const char* field;
    const char* source;
};

inline constexpr Column kColumns[] = {
    {Channel::Pipe, 160, "Vstd", "assumed"},
    {Channel::Pipe, 161, "Vw", "assumed"},
    {Channel::Pipe, 150, "P", "assumed"},
    {Channel::Pipe, 151, "T", "assumed"},
    {Channel::Common, 95, "NS", "assumed"},
};

}  // namespace spg761
