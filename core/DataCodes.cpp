// SPDX-License-Identifier: Apache-2.0
#include "core/DataCodes.h"

#include <cstddef>

namespace {

const char* const kTypeNames[] = {
    "ignored!", "time", "date", "date+hour", "datetime", nullptr, nullptr, "char", "byte", "bool",
    "short", "ushort", "int", "uint", "float", "double", "bits", "bits_16", "bits_32",
};

const char* const kUnitNames[] = {
    "unknown data type", "MPa", "kPa", "Pa", "kgs/sm2 (atm)", nullptr, "kgs/m2", "bar", "mm of mercury", "m3",
    "ths.m3", "m3/h", "grad", "hour", "procent", "kg/m3", "GCal", nullptr, "GJ", "MEW*h",
};

struct PressureRow {
    double to;          // unit -> kgf/cm2
    double from;        // kgf/cm2 -> unit
    bool single;        // has a single-precision variant
    float toF;
    float fromF;
};

// Index = unit code 1..8; row 0 unused.
const PressureRow kPressure[] = {
    {0, 0, false, 0, 0},
    {10.197162129787, 0.09806649999992578, true, 10.197162f, 0.0980665f},
    {0.01019716212978, 98.0664999999931, true, 0.010197162f, 98.0665f},
    {1.019716213e-5, 98066.49999787736, true, 1.0197162e-5f, 98066.5f},
    {1.0, 1.0, true, 1.0f, 1.0f},
    {1.0332274528, 0.9678411053539517, false, 0, 0},
    {0.0001, 10000.0, true, 0.0001f, 10000.0f},
    {1.0197162129779, 0.9806650000000271, true, 1.0197163f, 0.98066497f},
    {0.001359506049466, 735.5612727084148, true, 0.001359506f, 735.56128f},
};

template <typename T, size_t N>
const char* nameOf(const T (&table)[N], uint32_t code, const char* unknown) {
    if (code < N && table[code])
        return table[code];
    return unknown;
}

const PressureRow* pressureRow(uint32_t unit) {
    if (unit < 1 || unit > 8)
        return nullptr;
    return &kPressure[unit];
}

}  // namespace

const char* dataTypeName(uint32_t type) { return nameOf(kTypeNames, type, "unknown data type"); }

const char* dataUnitName(uint32_t unit) { return nameOf(kUnitNames, unit, "absolute unknown data unit"); }

bool pressureFactor(uint32_t unit, double& factor) {
    const PressureRow* row = pressureRow(unit);
    factor = row ? row->to : -1;
    return row != nullptr;
}

bool pressureFactorInverse(uint32_t unit, double& factor) {
    const PressureRow* row = pressureRow(unit);
    factor = row ? row->from : -1;
    return row != nullptr;
}

bool pressureFactor(uint32_t unit, float& factor) {
    const PressureRow* row = pressureRow(unit);
    bool ok = row && row->single;
    factor = ok ? row->toF : -1.0f;
    return ok;
}

bool pressureFactorInverse(uint32_t unit, float& factor) {
    const PressureRow* row = pressureRow(unit);
    bool ok = row && row->single;
    factor = ok ? row->fromF : -1.0f;
    return ok;
}

bool energyFactor(uint32_t unit, double& factor) {
    switch (unit) {
    case DU_GCAL: factor = 1.0; return true;
    case DU_CAL: factor = 0.00023884589662749594; return true;
    case DU_GJ: factor = 0.23884589662749595; return true;
    case DU_MWH: factor = 0.8598452278589854; return true;
    default: factor = -1; return false;
    }
}
