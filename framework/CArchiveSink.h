// SPDX-License-Identifier: Apache-2.0
#pragma once
// Where a driver hands the records of one archive read. The base makes one
// sink per read with the window [from, to] and the archive kind; the driver
// reads blocks from its meter, adds each record as it comes off the wire
// (oldest first) and calls endBlock() after each block. The sink alone
// decides what is stored:
//
//   - the sequence: with record numbers (where the meter has them) a number
//     already seen is a block sent again and skipped, a jump is a gap; without
//     them an interval record must come after the one before and, where the
//     period is known, not more than one period after it, and a journal entry
//     must not go back in time (several may share a second);
//   - the grid, where the driver gives one (whole hours, days at the contract
//     hour): a record off it is a gap;
//   - the window: a record before `from` or already in the store is skipped,
//     one past `to` ends the read;
//   - storing block by block, so that a long transfer holds about one block in
//     memory. The records of the newest second wait for the next block: a
//     journal may have more entries at that second still to come. When a
//     transfer ends early the journal's newest second is left for the next
//     read, which starts after the newest stored entry and would otherwise
//     never find the rest of that second.
//
// A gap is the driver's to judge (read again from the last good record, or
// accept it with resync() when the meter itself has the hole). Stop means the
// driver ends the transfer: a stop was asked for, a store failed (nothing
// after it may be stored, or a hole would stay for good), or the read went
// past the window.

#include <atomic>
#include <cstddef>
#include <ctime>
#include <vector>

#include "core/ArchiveRecord.h"

// What the sink stores into: the archive files, a fake in tests.
class ArchiveStore {
public:
    virtual ~ArchiveStore() = default;
    // All or nothing: false when none of `records` became visible.
    virtual bool store(int archType, const std::vector<ArchiveRecord>& records) = 0;
    // The newest stored timestamp of the kind, 0 when none.
    virtual time_t lastStored(int archType) const = 0;
};

class CArchiveSink {
public:
    enum Verdict {
        Taken,    // in the sink
        Skipped,  // before the window, already stored or already seen: read on
        Gap,      // does not follow the record before it: not taken
        Stop,     // end the transfer
    };

    // `stop` (may be null) is looked at on every record and block.
    CArchiveSink(ArchiveStore& store, int archType, time_t from, time_t to, const std::atomic<bool>* stop = nullptr);

    int type() const { return m_type; }
    time_t from() const { return m_from; }
    time_t to() const { return m_to; }
    // The newest timestamp the store held when the read began (0: none).
    time_t stored() const { return m_stored; }
    bool journal() const { return m_type == ARCH_JOURNAL_EVENT || m_type == ARCH_JOURNAL_INTERVENT; }
    // The window ends no later than `t` (the device's own clock).
    void clipTo(time_t t);

    // Interval archives: seconds between records, for the hole check of
    // records without numbers; with `onGrid`, records must also sit on
    // (t - gridOffset) % period == 0.
    void setInterval(time_t period, bool onGrid = false, time_t gridOffset = 0);

    // One record; `number` is the meter's record number, -1 when it has none.
    Verdict add(ArchiveRecord record, long long number = -1);
    // The next record starts a new sequence: the driver accepts a gap.
    void resync();
    // The time of the last record that passed the sequence checks, 0 none yet.
    time_t lastTime() const { return m_lastTime; }

    // After a block: stores what is complete. False when the driver should
    // stop (a stop request, a failed store).
    bool endBlock();
    // The transfer ended before the meter said it was done.
    void interrupted() { m_complete = false; }
    // The base, when the driver returned or threw (`complete` false): stores
    // the rest. Returns the number of records taken over the whole read.
    size_t finish(bool complete);

    bool storeFailed() const { return m_storeFailed; }

private:
    bool stopping() const { return m_stop && m_stop->load(); }
    bool storeUpTo(size_t count);

    ArchiveStore& m_store;
    const int m_type;
    const time_t m_from;
    time_t m_to;
    const std::atomic<bool>* m_stop;
    const time_t m_stored;  // newest stored timestamp when the read began

    time_t m_period = 0;
    bool m_onGrid = false;
    time_t m_gridOffset = 0;

    bool m_haveLast = false;
    time_t m_lastTime = 0;
    long long m_lastNumber = -1;

    std::vector<ArchiveRecord> m_pending;
    size_t m_taken = 0;
    bool m_complete = true;
    bool m_storeFailed = false;
};
