// SPDX-License-Identifier: Apache-2.0
#pragma once
// A Modbus RTU meter described by a register-map template (a JSON file a field
// engineer writes from the maker's manual; docs/modbus-templates.md), and the
// pure pieces the template driver is built from: loading and checking a
// template, turning registers into numbers, and grouping register reads into
// as few transactions as the device allows.
//
// The checks here are the ones modbus-template.schema.json (shipped beside the
// templates) states, written out by hand: every refusal is one line naming the
// file, the member and the reason.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class ModbusKind { Holding, Input, Coil, Discrete };

// How one value sits in its registers. Formats of more than one register take
// their words in `wordLowFirst` order and the two bytes of each word in
// `byteLowFirst` order ("ABCD" is neither, "CDAB" word low first, "BADC" byte
// low first, "DCBA" both).
struct ModbusField {
    enum Format { U16, S16, U32, S32, U64, Float32, Float64, Bit, Text };
    ModbusKind kind = ModbusKind::Holding;
    uint16_t address = 0;
    Format format = U16;
    bool wordLowFirst = false;
    bool byteLowFirst = false;
    uint16_t textRegisters = 0;  // Text: registers of two characters each
    // Registers (or bits) the value takes.
    uint16_t count() const;
};

struct ModbusValue {
    std::string name;  // published name, e.g. "Vstd"
    ModbusField field;
    double scale = 1.0;
    double offset = 0.0;
    uint32_t unit = 0;  // DataUnit; 0 publishes no dimension
    int decimals = -1;  // digits after the point; -1: integers as read, others 5
    bool total = false; // a totaliser: kept in the hourly and daily records
};

// The meter's clock: six registers year, month, day, hour, minute, second in
// the meter's local time ("fields"), or Unix seconds in one value ("unix").
struct ModbusClock {
    bool present = false;
    bool unixSeconds = false;
    ModbusField field;  // fields: address and kind of the six registers
};

// A readable archive: a register window showing one record, chosen by writing
// its record number or its time (Unix seconds) into two holding registers,
// high word first. Record numbers count up for ever; the meter keeps the last
// `depth` of them. Offsets of the record's members are counted from the
// window's first register.
struct ModbusArchive {
    bool present = false;
    bool byTime = false;
    uint16_t selectAddress = 0;
    ModbusField newest;          // by number: the number of the newest record
    uint32_t depth = 0;          // by number: records the meter keeps
    ModbusKind windowKind = ModbusKind::Holding;
    uint16_t windowAddress = 0;
    uint16_t windowCount = 0;    // registers of the window, from the members
    ModbusClock time;            // its field address is an offset
    std::vector<ModbusValue> fields;  // their addresses are offsets
};

struct CModbusTemplate {
    std::string file;  // the path it was loaded from
    std::string name;
    int slave = 1;
    // Line defaults, used when the configuration does not give them ("" none).
    std::string speed, data, parity, stop;
    int maxRegisters = 125;  // per read transaction
    int maxBits = 2000;
    int attempts = 3;        // per transaction, on no answer or a damaged one
    ModbusClock clock;
    ModbusField serial;
    bool hasSerial = false;
    std::vector<ModbusValue> values;
    ModbusArchive hourly, daily;
};

// Reads `path` and checks it; false with `error` set to
// "<file>: <member>: <reason>" (member as a path such as values[2].format).
bool loadModbusTemplate(const std::string& path, CModbusTemplate& out, std::string& error);
// The same for text already read; `file` is only for the message.
bool parseModbusTemplate(const std::string& text, const std::string& file, CModbusTemplate& out, std::string& error);
// The first of `dirs` holding "<name>.json" ("" when none). Names with a '/'
// or starting with '.' are refused ("").
std::string findModbusTemplate(const std::string& name, const std::vector<std::string>& dirs);

// The value `field` holds in `regs` (count() registers as read, each as the
// 16-bit value the line carried). Integers above 2^53 lose precision.
double decodeModbusNumber(const ModbusField& field, const uint16_t* regs);
// Exact integer of a U16..U64 field, for serial numbers.
uint64_t decodeModbusInteger(const ModbusField& field, const uint16_t* regs);
// Characters of a Text field, trailing blanks and NULs removed.
std::string decodeModbusText(const ModbusField& field, const uint16_t* regs);

// One read transaction: `count` registers (or bits) of `kind` from `address`.
struct ModbusBlock {
    ModbusKind kind = ModbusKind::Holding;
    uint16_t address = 0;
    uint16_t count = 0;
    std::vector<size_t> items;  // indexes of the fields it covers
};
// Groups `fields` into blocks: fields of one kind whose registers touch or
// overlap share a block while it stays within maxRegisters (maxBits for coils
// and discrete inputs). Registers between fields are never read: a slave may
// refuse an address it has not mapped.
std::vector<ModbusBlock> planModbusReads(const std::vector<ModbusField>& fields, int maxRegisters, int maxBits);
