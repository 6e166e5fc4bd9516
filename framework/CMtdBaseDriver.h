// SPDX-License-Identifier: Apache-2.0
#pragma once
// Base of every device driver. The polling thread (functionThread) is the same
// for all drivers: wait for the turn, open the port, init, system values,
// passport, current values (published in one call), the archives that are due,
// give the turn back, wait data_rate seconds. A driver overrides the device
// operations below; the schedule and the storage of records live here.
//
// Exceptions thrown by a device operation end the cycle (see Exceptions.h);
// the schedule survives and what was stored stays stored.
//
// Session contract: once init() has been called, the base calls
// session_close() exactly once before the cycle lets go of the line, whatever
// ended the cycle: its normal end, an exception from any device operation, or
// a stop. So a meter is never left holding a session (and its locks) until its
// own time-out, and the next driver on the line never meets one. On a stop the
// thread calls it before it ends; while stopping, a read in progress on the
// connector is cut short, so the stop stays within a few seconds.
//
// A derived driver whose thread uses its own members must call StopPolling()
// first thing in its destructor (the base destructor runs too late for that).
//
// Operator controls, looked at when the driver gets its turn (control dir):
// "pause_gmd_all", "pause_gmd" or "pause_gmd_<id>" makes the driver give the
// turn back without touching the line; "gmd_force_update_<id>" ends the
// data_rate wait early. Health goes to "mtd_status_<id>.json" (CMtdStatus).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/CArchiveSink.h"
#include "framework/CMtdClock.h"
#include "framework/CMtdStatus.h"
#include "core/logger.h"
#include "core/myThreadAttached.h"
#include "core/CDeviceConfig.h"
#include "core/CValueRecord.h"
#include "core/Defaults.h"
#include "core/ArchiveRecord.h"

class CConnector;
class CJSONRPCConnector;

// A line about this driver's meter, from inside a driver: opens with
// "[<id>][<driver name>] "; `fmt` is a literal.
#define MTD_DLOG(sev, fmt, ...) MTD_LOG(sev, "[%lld][%s] " fmt, logId(), driverName(), ##__VA_ARGS__)
class GasFileConnector;

// Where a driver keeps its archives and finds the control files.
struct DriverPaths {
    std::string storageRoot = mtd::defaults::kStorageRoot;
    std::string controlDir = mtd::defaults::kControlDir;
    // Where drivers described by a template file look for it, in order.
    std::vector<std::string> templateDirs = {mtd::defaults::kTemplateDirSite, mtd::defaults::kTemplateDirPackage};
};

class CMtdBaseDriver : public myThreadAttached {
public:
    CMtdBaseDriver();
    ~CMtdBaseDriver() override;

    // Chooses the driver class from config "manufacturer" by the model table,
    // wires it to the host link and the shared connector and starts its thread.
    static std::unique_ptr<CMtdBaseDriver> create_and_init(const CDeviceConfig& config, CConnector* connector,
                                                           CJSONRPCConnector* rpc);
    static std::unique_ptr<CMtdBaseDriver> create_and_init(const CDeviceConfig& config, CConnector* connector,
                                                           CJSONRPCConnector* rpc, const DriverPaths& paths);

    // ---- device operations, in the drivers' slot order ----
    virtual int ReadHourlyArch();
    virtual int ReadDailyArch();
    // Waits `seconds`, or less when a force update is asked; a driver overriding
    // it replaces the data_rate wait and should end early when forceUpdatePending().
    virtual void Wait(int seconds, bool flag);
    // Stores the shared connector and builds the driver's protocol object on it.
    virtual void SaveConnector(CConnector* connector);
    // First exchange with the device after the port is open.
    virtual bool init();
    // Current time, current and totaliser values.
    virtual std::vector<CValueRecord> get_all_curtime_cur_integ_values();
    // Serial number, firmware, contract hour, ...; empty when the device did not answer.
    virtual std::vector<CValueRecord> get_all_system_values();
    // Reads the archive kind sink.type() over the sink's window from the meter
    // and adds each record to the sink as it comes (see CArchiveSink), calling
    // sink.endBlock() after each block; stops when the sink says so. What the
    // sink took before an exception is stored. Called through readArchive,
    // which has refused kinds the meter lacks and cut the window at the meter's clock.
    virtual void get_arch_values(CArchiveSink& sink);
    // The meter keeps this archive kind.
    virtual bool hasArchive(int archType) const;
    // The window of an archive read ends at the meter's clock (GetTimestamps).
    virtual bool archiveWindowEndsAtDeviceClock() const { return true; }
    // A time as the log lines about the meter's clock show it.
    virtual std::string clockText(time_t t) const;
    // What every archive read does before the driver's get_arch_values: refuse
    // a kind the meter lacks, read the meter's clock and end the window there.
    void readArchive(CArchiveSink& sink);
    // True when an hourly or daily read is due; also called by the main thread
    // every 5 s. Each call also looks for the force-update file and lets a
    // paused driver look at its pause file again, so neither is polled faster
    // than the main loop's step.
    virtual bool GetArchActual();
    // Device time and contract (rate) hour; false when unknown.
    virtual bool GetTimestamps(time_t& deviceTime, int& rateHour);
    // Called before writeGasPasport.
    virtual void before_write_passport();
    // Called when the cycle has ended and the turn is given back.
    virtual void cycle_end();
    // Ends the device session init() opened (see the session contract above).
    // Called on the polling thread before the turn goes back, also after an
    // exception or on a stop; it must not throw and should only send what ends
    // the session (no long exchanges): a stop waits for it.
    virtual void session_close();
    // Reading window for the fifth schedule entry; 0 when the driver has none.
    virtual time_t sync_time(time_t storedTimestamp);
    // Writes requested gas-passport values into the device.
    virtual void writeGasPasport();

    // ---- turn-taking with the main thread ----
    void GiveTurn();                // main thread: set the turn flag and wake the thread
    bool HasTurn() const;           // true until the thread clears it at the end of its cycle
    bool CycleDone() const;
    // Blocks until the thread has given the turn back (end of a cycle, normal
    // or by exception) or `timeout` passes; true when the turn is back.
    bool WaitTurnReturned(std::chrono::milliseconds timeout);

    const CDeviceConfig& config() const { return m_config; }
    // Name used in the "[id][name] " opening of the driver's log lines (MTD_DLOG).
    virtual const char* driverName() const { return "CMtdBaseDriver"; }

    // Also points the host link's retry loop at this driver's cancel flag, so
    // that StopPolling() releases a thread waiting for an absent host service.
    void setJSONRPCConnector(CJSONRPCConnector* rpc);
    void save_init_params(const CDeviceConfig& config);
    // Before Start(): archive and control-file places, and the clock.
    void setPaths(const DriverPaths& paths) { m_paths = paths; }
    void setClock(std::shared_ptr<CMtdClock> clock);

    // Ends the polling thread: cancels a pending host-link exchange, wakes the
    // thread and joins it. The cycle in progress ends after its current device
    // operation; what was stored stays stored. Idempotent.
    void StopPolling();

    // Schedule state, for the main thread's diagnostics and for tests.
    time_t nextHourly() const { return when_next_arch_hourly.load(); }
    time_t nextDaily() const { return when_next_arch_daily.load(); }
    time_t nextJournalEvent() const { return when_next_arch_journal_event.load(); }
    time_t nextJournalIntervent() const { return when_next_arch_journal_intervent.load(); }
    // True while a pause file held this driver's last turn.
    bool Paused() const { return m_paused.load(); }
    // A force-update file was seen and the data_rate wait should end.
    bool forceUpdatePending() const { return m_forceUpdate.load(); }

protected:
    void functionThread() override;

    // The newest stored timestamp of an archive kind (0 when none), logged
    // against the reader's start time.
    time_t GetMaxTimestampIn(int archType, time_t start);
    int ReadJournalEventArch();
    int ReadJournalInterventArch();

    time_t now() const { return m_clock->now(); }
    // Blocks until the driver's clock reaches `target`; false when stopping.
    bool waitUntilTime(time_t target);
    // The newest stored timestamp of an archive kind; 0 when none, or before
    // the thread has opened the store.
    time_t lastStoredTime(int archType) const;
    const DriverPaths& paths() const { return m_paths; }
    // Seconds after midnight of the contract hour, from the configuration ("rate_hour").
    time_t rateHourOffset() const;

    // The meter identifier as a number, for the "[%lld]" of log lines.
    long long logId() const { return m_logId; }

    CDeviceConfig m_config;
    long long m_logId = 0;
    CConnector* m_connector = nullptr;
    CJSONRPCConnector* m_rpc = nullptr;
    int data_rate = 300;

    std::atomic<uint8_t> m_turn{0};
    std::atomic<uint8_t> m_cycleDone{0};

    // The schedule. The main thread reads the hourly and daily times every few
    // seconds (GetArchActual) while this thread may be writing the archive
    // files, and the store is not shared between threads: so the times are
    // kept here, derived from what the store holds after each store.
    std::atomic<time_t> when_next_arch_hourly{0};
    std::atomic<time_t> when_next_arch_daily{0};
    std::atomic<time_t> when_next_arch_journal_event{0};
    std::atomic<time_t> when_next_arch_journal_intervent{0};
    std::atomic<time_t> when_next_sync_window{0};

private:
    struct StopRequested {};
    void initSchedule();
    void runCycle();
    void cycleBody();
    bool waitForTurn();
    void openConnector();
    void checkStop() const;
    void returnTurn();
    // Lets a stop cut the connector's reads short (true) or not (false).
    void lineAbortable(bool on);
    // True when a pause file held this turn: the turn is back, nothing was sent.
    bool servePause();
    void cycleFailed(const char* kind, const char* message);
    // session_close() when this cycle called init() and has not closed yet.
    void closeSession();
    void writeStatus();
    // Hands records to the archive files, then moves the kind's next time from
    // what the files hold.
    bool storeArchive(int archType, const std::vector<ArchiveRecord>& records);
    // Runs get_arch_values over one window through a sink and stores what the
    // sink took, also when it throws; returns the number of records taken.
    size_t readAndStore(int archType, time_t from, time_t to);
    // Reads one kind from its next time up to now; `absentText` (may be null)
    // is logged when nothing came.
    int readFromNext(int archType, const std::atomic<time_t>& next, const char* absentText);
    // True (after the three schedule lines) when the hourly or daily read
    // starting at `next` is due: its interval closed 119 s ago or more.
    bool archiveDue(int archType, time_t next);

    // The archive files as the sink sees them.
    class StoreOfDriver : public ArchiveStore {
    public:
        explicit StoreOfDriver(CMtdBaseDriver& driver) : m_driver(driver) {}
        bool store(int archType, const std::vector<ArchiveRecord>& records) override {
            return m_driver.storeArchive(archType, records);
        }
        time_t lastStored(int archType) const override;

    private:
        CMtdBaseDriver& m_driver;
    };

    DriverPaths m_paths;
    std::shared_ptr<CMtdClock> m_clock;
    std::unique_ptr<GasFileConnector> m_store;
    std::unique_ptr<CMtdStatus> m_status;
    std::atomic<bool> m_paused{false};
    std::atomic<bool> m_pauseTick{false};
    std::atomic<bool> m_forceUpdate{false};
    std::atomic<bool> m_cancel{false};
    std::mutex m_turnMutex;
    std::condition_variable m_turnCv;
    bool m_sessionOpened = false;  // polling thread only
};
