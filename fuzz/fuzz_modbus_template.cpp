// SPDX-License-Identifier: Apache-2.0
// Register-map templates as the template driver loads them: any text either
// passes every check or is refused with one message; then the reads it plans
// and the values it decodes stay inside their registers.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "drivers/modbus/CModbusTemplate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CModbusTemplate t;
    std::string error;
    if (!parseModbusTemplate(text, "fuzz.json", t, error)) {
        if (error.empty())
            __builtin_trap();  // a refusal always says why
        return 0;
    }
    std::vector<ModbusField> fields;
    for (const ModbusValue& v : t.values)
        fields.push_back(v.field);
    const std::vector<ModbusBlock> plan = planModbusReads(fields, t.maxRegisters, t.maxBits);
    for (const ModbusBlock& b : plan) {
        std::vector<uint16_t> regs(b.count, 0xA5A5);
        for (size_t i : b.items) {
            const ModbusField& f = fields[i];
            if (f.address < b.address || f.address + f.count() > b.address + b.count)
                __builtin_trap();
            decodeModbusNumber(f, regs.data() + (f.address - b.address));
        }
    }
    return 0;
}
