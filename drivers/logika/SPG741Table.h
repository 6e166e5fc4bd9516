// SPDX-License-Identifier: Apache-2.0
#pragma once
// Everything the SPG741 driver knows about the meter's memory, in one place.
// Each row names where its number comes from: "public" rows were checked
// against the maker's meter library and its ports (see CmtdSPG741.h for the
// list); "assumed" rows are this driver's guess, because the maker's memory
// map of the SPG741 (its tag and archive tables) is not published. Correct an
// assumed row here when a real meter or the maker's parameter list disagrees;
// nothing else in the driver holds a number of the memory map.
//
// A second model of the family (a sibling 74x) is another table like this
// one and a row in the factory's model table.

#include <cstddef>
#include <cstdint>

#include "core/ArchiveRecord.h"

namespace spg741 {

// Value encodings of the meter's memory (public: the library's binary types).
enum class Type : uint8_t {
    MFloat,   // Microchip 32-bit float, 4 bytes
    Bits16,   // 16 flag bits, low byte first
    I32MF,    // int32 + Microchip float, 8 bytes (a total)
};

struct Number {
    uint32_t value;
    const char* source;
};

struct Field {
    const char* name;   // published name
    uint16_t offset;    // in the record or the RAM block
    Type type;
    int unitParam;      // index into kUnitParams for a pressure, -1 otherwise
    const char* source;
};

// One archive: a ring of 4-byte headers (YY since 1900, MM, DD, HH) beside a
// ring of records, or (journals) a ring of records carrying their own time,
// and a 16-bit index in flash of the slot written last.
struct Ring {
    int archType;             // ARCH_* of core/ArchiveRecord.h
    const char* name;
    uint32_t indexAddress;    // flash
    uint32_t headersAddress;  // flash; 0 for a journal
    uint32_t recordsAddress;  // flash
    uint16_t capacity;
    uint16_t recordSize;
    const char* source;
};

constexpr Number kIdent{0x4729, "public (library IdentWord)"};
constexpr Number kFlashSize{0x17C80, "public (library ADS file layout)"};
constexpr Number kMaxBaud{2400, "public (library MaxBaudRate)"};
constexpr Number kSessionMinutes{30, "public (library SessionTimeout)"};

// The settings database: parameter N lies at kDbAddress + N * kDbEntrySize;
// bytes 4..11 hold the value as text (0xFF at byte 4: never set), byte 12
// its binary form.
constexpr Number kDbAddress{0x0200, "public (library PARAMS_FLASH_ADDR)"};
constexpr Number kDbEntrySize{16, "public (library SizeOf dbentry)"};
constexpr Number kParamScheme{0, "public (library get741sp: SP at 0x200)"};
constexpr Number kParamRateHour{24, "assumed (the family's number of the contract hour)"};
constexpr Number kParamRateDay{25, "assumed (the family's number of the contract day)"};
// Pressure unit of each pressure sensor; the code is the two low bits of the
// binary byte (public: library BuildEUDict), the parameter numbers are assumed.
struct UnitParam {
    const char* name;
    uint32_t param;
};
constexpr UnitParam kUnitParams[] = {
    {"[P1]", 26}, {"[dP1]", 27}, {"[P2]", 28}, {"[dP2]", 29}, {"[dP3]", 30}, {"[Pb]", 31}, {"[P3]", 32}, {"[P4]", 33},
};
constexpr const char* kUnitParamsSource = "names public (library EngUnits tags), numbers assumed";
constexpr int kUnitP1 = 0, kUnitP2 = 2;

// Flash: serial number (u24 + a check byte) and the totals (int32 + float each).
constexpr Number kSerialAddress{0x0000, "assumed"};
constexpr Number kTotalsAddress{0x0040, "assumed"};
constexpr Field kTotals[] = {
    {"Vstd1", 0, Type::I32MF, -1, "assumed offset"},
    {"Vw1", 8, Type::I32MF, -1, "assumed offset"},
    {"Vstd2", 16, Type::I32MF, -1, "assumed offset"},
    {"Vw2", 24, Type::I32MF, -1, "assumed offset"},
};
constexpr size_t kTotalsSize = 32;

// RAM: date YY MM DD (4-byte slot), time HH MM SS (4-byte slot), the 32 fault
// flags, the current values.
constexpr Number kRamDate{0x0000, "assumed"};
constexpr Number kRamTime{0x0004, "assumed"};
constexpr Number kRamFaults{0x0008, "assumed"};
constexpr Field kCurrent[] = {
    {"P1", 0x10, Type::MFloat, kUnitP1, "assumed address"},
    {"T1", 0x14, Type::MFloat, -1, "assumed address"},
    {"Qw1", 0x18, Type::MFloat, -1, "assumed address"},
    {"Qstd1", 0x1C, Type::MFloat, -1, "assumed address"},
    {"P2", 0x20, Type::MFloat, kUnitP2, "assumed address"},
    {"T2", 0x24, Type::MFloat, -1, "assumed address"},
    {"Qw2", 0x28, Type::MFloat, -1, "assumed address"},
    {"Qstd2", 0x2C, Type::MFloat, -1, "assumed address"},
};
constexpr size_t kRamBlockSize = 0x30;  // date .. the last current value

constexpr Ring kHourly{ARCH_HOURLY, "Hourly", 0x1000, 0x1040, 0x2140, 1080, 32, "structure public, numbers assumed"};
constexpr Ring kDaily{ARCH_DAILY, "Daily", 0x1002, 0xA840, 0xAE00, 366, 32, "structure public, numbers assumed"};
constexpr Ring kJournal{ARCH_JOURNAL_EVENT, "Journal", 0x1004, 0, 0xDC00, 128, 8, "structure and record size public, numbers assumed"};
constexpr const Ring* kRings[] = {&kHourly, &kDaily, &kJournal};

// An interval record (hourly and daily alike).
constexpr Field kIntervalFields[] = {
    {"Vstd1", 0, Type::MFloat, -1, "assumed offset"},
    {"Vw1", 4, Type::MFloat, -1, "assumed offset"},
    {"P1", 8, Type::MFloat, kUnitP1, "assumed offset"},
    {"T1", 12, Type::MFloat, -1, "assumed offset"},
    {"Vstd2", 16, Type::MFloat, -1, "assumed offset"},
    {"Vw2", 20, Type::MFloat, -1, "assumed offset"},
    {"NS", 24, Type::Bits16, -1, "assumed offset"},
};

// A journal record: 0x10 (written), YY (since 2000) MM DD hh mm, the fault
// number, bit 0 of byte 7 set when the fault began (public: library NSrecord).
constexpr uint8_t kJournalMark = 0x10;

}  // namespace spg741
