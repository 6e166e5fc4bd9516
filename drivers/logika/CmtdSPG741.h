// SPDX-License-Identifier: Apache-2.0
#pragma once
// Logika SPG741 gas volume corrector (models "spg741", "spg741.1", "spg741.2",
// served alike), over the older M4 dialect: after the session start the
// driver reads the meter's RAM and flash and takes the values out of them by
// the memory map in SPG741Table.h (CM4MemoryConnector has the frames).
//
// A cycle: session start (the answer carries the identifier 0x47 0x29 and
// the firmware version), the settings database (contract hour and day, the
// pressure unit of each sensor), the serial number and the totals in flash,
// the clock, the fault flags and the current values in RAM, then the archive
// rings in flash. Nothing closes a session on this dialect: the meter drops
// it after 30 minutes of silence; the driver forgets it at the end of the
// cycle and starts afresh. The meter talks at 2400 Bd at most and cannot
// change speed.
//
// Typical exchange (NT 1): session start 10 01 3F 00 00 00 00 BF 16, answer
// 10 01 3F 47 29 21 CS 16; eight flash pages from page 8 (the settings):
// 10 01 45 08 00 08 00 A9 16, answered by eight frames 10 01 45 <64 bytes> CS 16;
// 48 RAM bytes from 0: 10 01 52 00 00 30 00 7C 16, answer 10 01 52 <48 bytes> CS 16.
//
// Where the facts come from (public meter libraries, read for facts only):
// the maker's C# library (M4Opcode, TSPG741, Logika4L) and its ports
// github.com/Vadsxd/LogikaPython (Logika/Meters/__4L/SPG741.py, Logika4L.py,
// Logika/Protocols/M4/FlashRingBuffer.py, FlashArchive4L.py, M4Protocol.py)
// and github.com/HypeRRu/logika_libs (protocols/m4/opcodes.h,
// m4protocol_impl.cpp):
//   - ReadFlash 0x45 / ReadRam 0x52, flash pages of 64 bytes answered one
//     frame a page, at most 8 pages or 64 RAM bytes a request;
//   - identifier 0x4729; session time-out 30 minutes; 2400 Bd at most;
//   - the settings database at flash 0x200, 16 bytes a parameter (text in
//     bytes 4..11, binary in byte 12), the scheme (SP) as parameter 0, the
//     pressure unit per sensor in the two low bits of the binary byte
//     (0 kPa, 1 MPa, 2 kgf/cm2, 3 kgf/m2);
//   - encodings: Microchip float, int32 + float totals (in flash), u24 serial
//     in a 4-byte field, date YY MM DD and time HH MM SS each in a 4-byte slot,
//     32 fault flags;
//   - interval archives as a ring of 4-byte headers (YY since 1900, MM, DD,
//     HH; a daily record's hour is the contract hour; 0 or FFFFFFFF: empty)
//     beside a ring of records, the slot written last as a 16-bit word in
//     flash; read backwards from that slot to the start of the window;
//   - journal records of 8 bytes: 0x10, YY MM DD hh mm, fault number, bit 0
//     set when the fault began.
// NOT published: every address, ring capacity, parameter number and field
// offset of the SPG741 (the maker's tables are not public). SPG741Table.h
// marks each of them "assumed"; check them on a real meter first.
// Archive reads collect the slots of the window from the headers, then read
// the records oldest first, so a lost read ends the transfer before any hole.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "drivers/logika/CLogikaBaseDriver.h"
#include "drivers/logika/SPG741Table.h"
#include "protocols/CM4MemoryConnector.h"

class CmtdSPG741 : public logika::CLogikaBaseDriver {
public:
    CmtdSPG741();
    ~CmtdSPG741() override;

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

private:
    // The settings database, the serial number and the totals (once a cycle).
    bool readSettings();
    bool readClock(time_t& t);
    // Pressure in the sensor's unit -> kgf/cm2; false when the unit is unknown.
    bool sensorPressureFactor(int unitParam, double& factor) const;
    // The slot written last; false (logged) when it is out of the ring.
    bool readLastSlot(const spg741::Ring& ring, unsigned& slot);
    struct Slot {
        unsigned index;
        time_t time;
        std::vector<uint8_t> record;  // a journal's record, read on the walk
    };
    // Walks back from `last` through the headers (interval archives) or the
    // records (journals): the slots stamped in [from, to], oldest first.
    // Returns the newest stamp in the ring (at most `to`; 0 when it is empty).
    time_t slotsInWindow(const spg741::Ring& ring, unsigned last, time_t from, time_t to, std::vector<Slot>& slots);
    bool headerTime(const spg741::Ring& ring, const uint8_t* p, time_t& t) const;
    bool journalTime(const uint8_t* p, time_t& t) const;
    // False when the sink ends the transfer.
    bool readRecords(const spg741::Ring& ring, const std::vector<Slot>& slots, CArchiveSink& sink);
    ArchiveRecord makeRecord(const spg741::Ring& ring, const uint8_t* p, time_t t) const;
    // Every archive record leaves the driver here; false when the sink ends the transfer.
    bool emit(CArchiveSink& sink, ArchiveRecord rec);

    std::unique_ptr<CM4MemoryConnector> m_proto;
    M4::Timing m_timing;  // the session start's pauses
    ProtocolSleep m_sleep;

    // From the configuration (init).
    uint8_t m_netAddr = 0;

    // From the device.
    uint8_t m_ident[3] = {};
    bool m_haveSettings = false;
    uint32_t m_serial = 0;
    int m_scheme = -1, m_rateHour = -1, m_rateDay = -1;
    int m_units[sizeof spg741::kUnitParams / sizeof spg741::kUnitParams[0]] = {};
    double m_totals[sizeof spg741::kTotals / sizeof spg741::kTotals[0]] = {};
};
