// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika SPG741 gas volume corrector (models "spg741", "spg741.1", "spg741.2",
// served alike), over the older M4 dialect: after the session start the
// driver reads the meter's RAM and flash pages and takes the values out of
// them by its own memory map (CM4MemoryConnector has the frames).
//
// A cycle: session start (the answer carries the identifier 0x47 0x29 and
// the firmware version), the system block (flash page 0), the clock, the
// current values and the totals (RAM 0x0000..0x0057), then the archive rings
// in flash. Nothing closes a session on this dialect: the meter drops it
// after a minute of silence, so the driver forgets it at the end of the cycle
// and starts afresh.
//
// Typical exchange (NT 1): session start 10 01 3F 00 00 00 00 BF 16, answer
// 10 01 3F 47 29 21 CS 16; the clock: 10 01 45 00 00 06 00 B3 16, answer
// 10 01 45 18 05 01 0A 0F 00 CS 16 (2024-05-01 10:15:00 device time).
//
// Memory map. Where it comes from:
//   - the frame, the check byte and the 64-byte flash pages: Logika's
//     description of the M4 exchange of the 74x/94x meters;
//   - value encodings (Microchip 32-bit float; "int32 + float" totals; dates
//     YY MM DD and times HH MM SS as bytes; the 32 fault (НС) flags of the
//     SPG741 as a 32-bit set; a fault-journal record per change): the type
//     table of the Logika4 meter library's data files (l4_types);
//   - the identifier 0x4729: assumed from the library's code 0x4728 of the
//     sibling SPG740.
// NOT FOUND in any published source available here, and therefore an
// assumption of this driver (checked only against tools/m4sim, which was
// written from this same list): every address below, the record layouts and
// the ring depths, the pressure-unit codes, the firmware version as the third
// byte of the session answer, and that the newest slot of each ring is kept
// in RAM. Replace them from the maker's memory map before
// trusting readings from a real meter.
//   RAM  0x0000  clock: YY MM DD HH mm SS (device local time)
//        0x0008  fault flags, 32 bits, low byte first
//        0x0010  floats P1 t1 Qw1 Q1 P2 t2 Qw2 Q2 (pressure in the unit of
//                the system block; t in degC; flows m3/h, working and standard)
//        0x0030  totals V1 Vw1 V2 Vw2, each int32 + float (m3)
//        0x0050  newest slot of the hourly, daily and journal rings (u16,
//                0xFFFF while empty)
//   flash page 0  serial number (u24), model byte, contract hour, contract
//                 day, pressure unit (0 kgf/cm2, 1 MPa, 2 bar)
//         0x0010  hourly ring, 1080 records of 32 bytes
//         0x0240  daily ring, 366 records of 32 bytes
//         0x0300  fault journal, 128 records of 8 bytes
//   interval record: YY MM DD HH mm SS, floats V1 Vw1 P1 t1 V2 Vw2 (volumes
//   of the interval; mean pressure and temperature), u16 fault summary;
//   stamped at the end of its interval. Journal record: YY MM DD HH mm SS,
//   fault number, 1 came / 0 went. An erased slot reads 0xFF.
// Archive reads go back from the newest slot by the fixed period and then
// forward in time order, so a lost read ends the transfer before any hole.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "protocols/CM4MemoryConnector.h"
#include "drivers/logika/CLogikaBaseDriver.h"

class CmtdSPG741 : public logika::CLogikaBaseDriver {
public:
    CmtdSPG741();
    ~CmtdSPG741() override;
    // For the factory's model table (the rows carry no model code).
    static std::unique_ptr<CMtdBaseDriver> create(int model);

    const char* driverName() const override { return "CmtdSPG741"; }
    void SaveConnector(CConnector* connector) override;
    bool init() override;
    std::vector<CValueRecord> get_all_curtime_cur_integ_values() override;
    std::vector<CValueRecord> get_all_system_values() override;
    bool hasArchive(int archType) const override;
    // The ring's own newest slot bounds a read; the clock is not asked for it.
    bool archiveWindowEndsAtDeviceClock() const override { return false; }
    void get_arch_values(CArchiveSink& sink) override;
    bool GetTimestamps(time_t& deviceTime, int& rateHour) override;
    void cycle_end() override;
    // One week on from the stored timestamp.
    time_t sync_time(time_t storedTimestamp) override;
    void writeGasPasport() override;

    // Pauses of the session start and of the repeats (tests); applies from the next SaveConnector.
    void setTiming(M4::Timing timing, ProtocolSleep sleep);

    struct Ring;

private:
    bool readSystemBlock();
    bool readClock(time_t& t, std::string& text);
    // Device local time fields -> Unix seconds; false for an impossible date (an erased slot).
    bool deviceToUnix(const uint8_t* p, time_t& t) const;
    bool pressureFactorOfDevice(double& factor);
    bool readNewestSlot(const Ring& ring, unsigned& slot);
    // Reads `count` slots from `first` on; returns the newest record time seen.
    time_t readRing(const Ring& ring, unsigned first, unsigned count, time_t from, time_t to,
                    CArchiveSink& sink);
    // `pf`: factor of the meter's pressure unit to kgf/cm2, nullptr when unknown.
    bool parseRecord(const Ring& ring, const uint8_t* p, const double* pf, time_t& ts, ArchiveRecord& rec);

    std::unique_ptr<CM4MemoryConnector> m_proto;
    M4::Timing m_timing;
    ProtocolSleep m_sleep;

    // From the configuration (init).
    uint8_t m_netAddr = 0;

    // From the device.
    uint8_t m_ident[3] = {};
    bool m_haveSystem = false;
    uint32_t m_serial = 0;
    int m_rateHour = -1, m_rateDay = -1, m_pressureUnit = -1;
};
