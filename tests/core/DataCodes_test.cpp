// SPDX-License-Identifier: Apache-2.0
#include "core/DataCodes.h"

#include <gtest/gtest.h>

namespace {

// Factors checked against the physical definitions rather than the table:
// 1 kgf/cm2 = 98066.5 Pa, 1 bar = 1e5 Pa, 1 mmHg = 133.322387415 Pa, 1 atm = 101325 Pa.
TEST(DataCodes, PressureFactorsMatchPhysics) {
    const double kgfcm2 = 98066.5;
    struct Row { uint32_t unit; double pascals; };
    const Row rows[] = {{1, 1e6}, {2, 1e3}, {3, 1.0}, {4, kgfcm2}, {5, 101325.0},
                        {6, kgfcm2 / 1e4}, {7, 1e5}, {8, 133.322387415}};
    for (const Row& r : rows) {
        double to = 0, from = 0;
        ASSERT_TRUE(pressureFactor(r.unit, to)) << r.unit;
        ASSERT_TRUE(pressureFactorInverse(r.unit, from)) << r.unit;
        // The mmHg row was rounded by the meters' makers to 133.322 Pa; 5 ppm covers it.
        EXPECT_NEAR(to, r.pascals / kgfcm2, 5e-6 * (r.pascals / kgfcm2)) << r.unit;
        EXPECT_NEAR(to * from, 1.0, 1e-9) << r.unit;
        float toF = 0, fromF = 0;
        if (r.unit == 5) {
            EXPECT_FALSE(pressureFactor(r.unit, toF));
            EXPECT_EQ(toF, -1.0f);
            EXPECT_FALSE(pressureFactorInverse(r.unit, fromF));
        } else {
            ASSERT_TRUE(pressureFactor(r.unit, toF));
            ASSERT_TRUE(pressureFactorInverse(r.unit, fromF));
            EXPECT_NEAR(toF, to, 1e-6 * to);
            EXPECT_NEAR(fromF, from, 1e-6 * from);
        }
    }
    double d = 0;
    EXPECT_FALSE(pressureFactor(9, d));
    EXPECT_EQ(d, -1);
    EXPECT_FALSE(pressureFactorInverse(0, d));
    EXPECT_EQ(d, -1);
}

TEST(DataCodes, EnergyFactorsMatchPhysics) {
    // 1 cal = 4.1868 J; GCal is 1e9 cal; unit 17 is Mcal... checked by ratio to GJ.
    double gj = 0, mwh = 0, gcal = 0, u17 = 0, bad = 0;
    ASSERT_TRUE(energyFactor(18, gj));
    ASSERT_TRUE(energyFactor(19, mwh));
    ASSERT_TRUE(energyFactor(16, gcal));
    ASSERT_TRUE(energyFactor(17, u17));
    EXPECT_DOUBLE_EQ(gcal, 1.0);
    EXPECT_NEAR(gj, 1.0 / 4.1868, 1e-12);
    EXPECT_NEAR(mwh, 3.6 / 4.1868, 1e-12);
    EXPECT_NEAR(u17, gj / 1000.0, 1e-15);
    EXPECT_FALSE(energyFactor(9, bad));
    EXPECT_EQ(bad, -1);
}

}  // namespace
