// SPDX-License-Identifier: Apache-2.0
#pragma once
// The small shared vocabulary with which driver tables describe a meter
// parameter: how the raw value is encoded (DataType) and what it measures
// (DataUnit), their names, and the fixed factors between pressure units
// (to kgf/cm2) and between energy units (to GCal).
//
// The names are published as the dimension of a value, so they are product
// texts: "kgs/sm2 (atm)", "procent", "grad" and "MEW*h" stay as they are. Unit 0
// is named with the data-type wording, and units 5 (physical atmosphere) and 17
// have factors but no name; the pressure factor of unit 5 exists only in double
// precision. Host-side reports depend on all three quirks.

#include <cstdint>

enum DataType : uint32_t {
    DT_IGNORED = 0,
    DT_TIME = 1,
    DT_DATE = 2,
    DT_DATE_HOUR = 3,
    DT_DATETIME = 4,
    DT_CHAR = 7,
    DT_BYTE = 8,
    DT_BOOL = 9,
    DT_SHORT = 10,
    DT_USHORT = 11,
    DT_INT = 12,
    DT_UINT = 13,
    DT_FLOAT = 14,
    DT_DOUBLE = 15,
    DT_BITS = 16,
    DT_BITS_16 = 17,
    DT_BITS_32 = 18,
};

enum DataUnit : uint32_t {
    DU_UNKNOWN = 0,
    DU_MPA = 1,
    DU_KPA = 2,
    DU_PA = 3,
    DU_KGF_CM2 = 4,
    DU_ATM_PHYS = 5,
    DU_KGF_M2 = 6,
    DU_BAR = 7,
    DU_MM_HG = 8,
    DU_M3 = 9,
    DU_THS_M3 = 10,
    DU_M3_H = 11,
    DU_GRAD = 12,
    DU_HOUR = 13,
    DU_PERCENT = 14,
    DU_KG_M3 = 15,
    DU_GCAL = 16,
    DU_CAL = 17,
    DU_GJ = 18,
    DU_MWH = 19,
};

const char* dataTypeName(uint32_t type);
const char* dataUnitName(uint32_t unit);

// Factor that turns a value in `unit` into kgf/cm2; -1 and false for a non-pressure unit.
bool pressureFactor(uint32_t unit, float& factor);
bool pressureFactor(uint32_t unit, double& factor);
// Factor that turns kgf/cm2 into `unit`; -1 and false for a non-pressure unit.
bool pressureFactorInverse(uint32_t unit, float& factor);
bool pressureFactorInverse(uint32_t unit, double& factor);
// Factor that turns a value in `unit` into GCal; -1 and false for a non-energy unit.
bool energyFactor(uint32_t unit, double& factor);
