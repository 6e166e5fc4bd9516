// SPDX-License-Identifier: Apache-2.0
#include "framework/CMtdBaseDriver.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/Exceptions.h"
#include "hostlink/CJSONRPCConnector.h"
#include "core/logger.h"
#include "storage/CControlFiles.h"
#include "storage/GasFileConnector.h"
#include "transport/CConnector.h"

namespace {

// Day windows of the first read from an empty store.
constexpr time_t kHourlyWindow = 1296000;  // 15 days
constexpr time_t kDailyWindow = 5356800;   // 62 days
// An archive interval is read only two minutes after it closed in the device:
// the meter needs that long to write its record.
constexpr time_t kArchiveMargin = 119;
constexpr int kDefaultDataRate = 300;
// Systems (channels) whose folders are taken back at start and released per cycle.
constexpr int kFirstSystem = 1;
constexpr int kLastSystem = 7;

// ctime() text without its newline, for the "(%s)" of the schedule lines.
struct TimeText {
    char text[32];
    explicit TimeText(time_t t) {
        if (!ctime_r(&t, text))
            std::strcpy(text, "?");
        text[std::strcspn(text, "\n")] = '\0';
    }
};

// One of the "+++ CMtdBaseDriver::functionThread(): <label> = <t> (<ctime>)"
// lines of the schedule; their "=" stands in one column.
void logScheduleTime(const std::string& label, time_t t) {
    MTD_LOG(Info, "+++ CMtdBaseDriver::functionThread(): %-22s= %d (%s)", label.c_str(), (int)t, TimeText(t).text);
}

// A paused driver looks at its pause file again at the main loop's next step,
// or after this long if no step comes.
constexpr auto kPauseRecheck = std::chrono::seconds(5);

// The kind of exception that ended a cycle, for the status file.
const char* exceptionKind(const std::exception& e) {
    if (dynamic_cast<const CDisconnectException*>(&e))
        return "CDisconnectException";
    if (dynamic_cast<const CNoDateTimeException*>(&e))
        return "CNoDateTimeException";
    if (dynamic_cast<const CWrongPacketException*>(&e))
        return "CWrongPacketException";
    if (dynamic_cast<const SerialErrorException*>(&e))
        return "SerialErrorException";
    return "std::exception";
}

// A whole decimal number; false for anything else.
bool parseDecimal(const std::string& text, long& value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

}  // namespace

CMtdBaseDriver::CMtdBaseDriver() : m_clock(std::make_shared<CMtdClock>()) {}

CMtdBaseDriver::~CMtdBaseDriver() { StopPolling(); }

void CMtdBaseDriver::StopPolling() {
    m_cancel.store(true);
    Stop();
}

void CMtdBaseDriver::setJSONRPCConnector(CJSONRPCConnector* rpc) {
    m_rpc = rpc;
    if (m_rpc)
        m_rpc->setCancelFlag(&m_cancel);
}

void CMtdBaseDriver::save_init_params(const CDeviceConfig& config) {
    m_config = config;
    m_logId = std::strtoll(config.meter_id.c_str(), nullptr, 10);
}

void CMtdBaseDriver::setClock(std::shared_ptr<CMtdClock> clock) {
    if (clock)
        m_clock = std::move(clock);
}

time_t CMtdBaseDriver::rateHourOffset() const {
    long hour = 0;
    if (!m_config.has("rate_hour"))
        return 0;
    if (!parseDecimal(m_config.get("rate_hour"), hour) || hour < 0 || hour > 23) {
        MTD_LOG(Warning, "CMtdBaseDriver::rateHourOffset() - wrong rate_hour '%s', 0 is used",
                m_config.get("rate_hour").c_str());
        return 0;
    }
    return static_cast<time_t>(hour) * 3600;
}

// ---- turn-taking ----

void CMtdBaseDriver::GiveTurn() {
    m_turn.store(1);
    Wake();
}

bool CMtdBaseDriver::HasTurn() const { return m_turn.load() != 0; }

bool CMtdBaseDriver::CycleDone() const { return m_cycleDone.load() != 0; }

void CMtdBaseDriver::lineAbortable(bool on) {
    // The connector is shared and outlives the driver: the flag is taken away
    // before the turn goes back and before the thread ends.
    if (m_connector)
        m_connector->SetAbortFlag(on ? &m_cancel : nullptr);
}

void CMtdBaseDriver::returnTurn() {
    lineAbortable(false);
    {
        std::lock_guard<std::mutex> lock(m_turnMutex);
        m_turn.store(0);
    }
    m_turnCv.notify_all();
}

bool CMtdBaseDriver::WaitTurnReturned(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_turnMutex);
    return m_turnCv.wait_for(lock, timeout, [this] { return m_turn.load() == 0; });
}

bool CMtdBaseDriver::waitForTurn() {
    while (!isStopping()) {
        // An idle driver sleeps until GiveTurn() or Stop() wakes it; the long
        // deadline is only a safety net.
        if (waitUntil(std::chrono::steady_clock::now() + std::chrono::hours(1), [this] { return m_turn.load() != 0; }))
            return true;
    }
    return false;
}

bool CMtdBaseDriver::waitUntilTime(time_t target) {
    while (!isStopping()) {
        if (m_clock->now() >= target)
            return true;
        waitUntil(m_clock->deadlineFor(target), [this, target] { return m_clock->now() >= target; });
    }
    return false;
}

void CMtdBaseDriver::checkStop() const {
    if (isStopping())
        throw StopRequested{};
}

// ---- the polling thread ----

void CMtdBaseDriver::functionThread() {
    MTD_LOG(Info, "CMtdBaseDriver::functionThread begin execute thread.");
    MTD_LOG(Info,
            "CMtdBaseDriver::functionThread v. 01.04 - use GetMaxTimestampIn() to calculate daily/hourly time of "
            "next request");

    m_store = std::make_unique<GasFileConnector>(m_config.meter_id, m_paths.storageRoot, m_paths.controlDir);
    // A folder held by the reporter is looked at again after a pause; a stop
    // ends the pause instead of waiting it out.
    m_store->setLockWaiter([this](unsigned seconds) { return sleepFor(std::chrono::seconds(seconds)); });
    m_status = std::make_unique<CMtdStatus>(m_paths.controlDir, m_config.meter_id);
    m_status->model = m_config.get("manufacturer");
    m_status->driverClass = driverName();
    m_status->started = now();
    // Time-outs, check-sum errors and retries noted by the protocol layers on
    // this thread are this meter's.
    CLinkStats::Bind linkStats(m_status->link);
    initSchedule();
    for (int kind = ARCH_HOURLY; kind <= ARCH_JOURNAL_INTERVENT; ++kind)
        m_status->lastStored[kind] = m_store->GetLastTimestamp(kind);
    for (int sys = kFirstSystem; sys <= kLastSystem; ++sys) {
        m_store->RemoveTmpArchivesSys(sys, "tmp_archives");
        m_store->RemoveTmpArchivesSys(sys, "tc_tmp_archives");
        m_store->RemoveTmpArchivesSys(sys, "tc_archives");
    }
    data_rate = kDefaultDataRate;
    m_status->dataRate = data_rate;
    writeStatus();

    try {
        while (!isStopping())
            runCycle();
    } catch (const StopRequested&) {
    }
    // Only the driver holding the turn may have its flag on the shared line;
    // one without it gave the flag back with the turn, and clearing here
    // would take the flag of the driver now on the line.
    if (HasTurn())
        lineAbortable(false);
}

void CMtdBaseDriver::initSchedule() {
    const time_t t = now();
    const time_t dayStart = t - t % 86400 - rateHourOffset();
    const time_t hourlyBegin = dayStart - kHourlyWindow;
    const time_t dailyBegin = dayStart - kDailyWindow;

    const time_t hourlyLast = m_store->GetLastTimestamp(ARCH_HOURLY);
    const time_t dailyLast = m_store->GetLastTimestamp(ARCH_DAILY);
    const time_t eventLast = m_store->GetLastTimestamp(ARCH_JOURNAL_EVENT);
    const time_t interventLast = m_store->GetLastTimestamp(ARCH_JOURNAL_INTERVENT);

    when_next_arch_hourly = std::max(hourlyLast - hourlyLast % 60 + 3600, hourlyBegin);
    when_next_arch_daily = std::max(dailyLast - dailyLast % 60 + 86400, dailyBegin);
    when_next_arch_journal_event = std::max(eventLast + 1, dailyBegin);
    when_next_arch_journal_intervent = std::max(interventLast + 1, dailyBegin);

    logScheduleTime("arch_hourly_begin", hourlyBegin);
    logScheduleTime("arch_hourly_last", hourlyLast);
    logScheduleTime("arch_daily_begin", dailyBegin);
    logScheduleTime("arch_daily_last", dailyLast);
    logScheduleTime("arch_event_last", eventLast);
    logScheduleTime("arch_intervent_last", interventLast);
    MTD_LOG(Debug,
            "when_next_arch_hourly = %d, when_next_arch_daily = %d, when_next_arch_journal_event = %d, "
            "when_next_arch_journal_intervent = %d, now = %d",
            (int)when_next_arch_hourly.load(), (int)when_next_arch_daily.load(),
            (int)when_next_arch_journal_event.load(), (int)when_next_arch_journal_intervent.load(), (int)t);
}

void CMtdBaseDriver::runCycle() {
    if (!waitForTurn())
        throw StopRequested{};
    // The control files are looked at before the port is touched.
    if (servePause())
        return;
    m_forceUpdate.store(false);
    if (CControlFiles(m_paths.controlDir).takeForceUpdate(m_config.meter_id))
        MTD_LOG(Notice, "CMtdBaseDriver::functionThread - meter %s: force-update file removed, the cycle starts now.",
                m_config.meter_id.c_str());

    m_cycleDone.store(0);
    m_status->cycleStarted = now();
    m_status->state = "reading";
    writeStatus();
    // While this driver holds the line, a stop cuts a read in progress short.
    lineAbortable(true);
    m_sessionOpened = false;
    try {
        cycleBody();
    } catch (const StopRequested&) {
        closeSession();
        throw;
    } catch (const std::exception& e) {
        MTD_LOG(Debug, "CMtdBaseDriver::functionThread - disconnecting from controller registered.");
        MTD_LOG(Debug, "CMtdBaseDriver::functionThread - cycle ended by: %s", e.what());
        closeSession();
        cycleFailed(exceptionKind(e), e.what());
        sleepFor(std::chrono::milliseconds(2));
        returnTurn();
        return;
    } catch (...) {
        MTD_LOG(Debug, "CMtdBaseDriver::functionThread - disconnecting from controller registered.");
        closeSession();
        cycleFailed("unknown exception", "");
        sleepFor(std::chrono::milliseconds(2));
        returnTurn();
        return;
    }

    Wait(data_rate, false);
}

bool CMtdBaseDriver::servePause() {
    if (!CControlFiles(m_paths.controlDir).pauseActive(m_config.meter_id)) {
        if (m_paused.exchange(false)) {
            MTD_LOG(Notice, "CMtdBaseDriver::functionThread - meter %s: pause ended, polling resumes.",
                    m_config.meter_id.c_str());
            m_status->paused = false;
        }
        return false;
    }
    if (!m_paused.exchange(true)) {
        MTD_LOG(Notice, "CMtdBaseDriver::functionThread - meter %s: paused by a control file, the line is left alone.",
                m_config.meter_id.c_str());
        m_status->paused = true;
        m_status->state = "paused";
        writeStatus();
    }
    // The tick is cleared before the turn goes back, so a step of the main
    // loop that follows the hand-back is never missed.
    m_pauseTick.store(false);
    returnTurn();
    // Without this wait a lone paused driver would be handed the turn straight
    // back and spin; the schedule does not move, so nothing is skipped.
    waitUntil(std::chrono::steady_clock::now() + kPauseRecheck, [this] { return m_pauseTick.load(); });
    return true;
}

void CMtdBaseDriver::cycleFailed(const char* kind, const char* message) {
    ++m_status->cycles;
    ++m_status->failedCycles;
    m_status->cycleEnded = now();
    m_status->outcome = std::string(kind) + (*message ? ": " : "") + message;
    m_status->state = "failing";
    writeStatus();
}

void CMtdBaseDriver::closeSession() {
    if (!m_sessionOpened)
        return;
    m_sessionOpened = false;
    // The close may still read its answer, also on a stop.
    lineAbortable(false);
    try {
        session_close();
    } catch (const std::exception& e) {
        MTD_LOG(Err, "CMtdBaseDriver::functionThread - session close failed: %s", e.what());
    } catch (...) {
        MTD_LOG(Err, "CMtdBaseDriver::functionThread - session close failed.");
    }
}

void CMtdBaseDriver::writeStatus() {
    if (m_status)
        m_status->write(now());
}

void CMtdBaseDriver::openConnector() {
    if (!m_connector || m_connector->is_open())
        return;
    // Retry once a second rather than every millisecond: a missing adapter
    // then costs one log line a second, not a thousand.
    bool reported = false;
    while (!m_connector->open_device()) {
        if (!reported) {
            MTD_LOG(Warning, "CMtdBaseDriver::functionThread - the port is not open, retrying every second.");
            reported = true;
        }
        if (!sleepFor(std::chrono::seconds(1)))
            throw StopRequested{};
    }
}

void CMtdBaseDriver::cycleBody() {
    MTD_LOG(Debug, "CMtdBaseDriver::functionThread - the original state of the connection controller.");
    openConnector();
    checkStop();

    // From here on the device may hold a session, even if init() throws halfway.
    m_sessionOpened = true;
    init();
    if (get_all_system_values().empty())
        MTD_LOG(Warning, "CMtdBaseDriver::functionThread system info is absent.");
    else
        m_status->lastAnswer = now();
    MTD_LOG(Debug, "CMtdBaseDriver::functionThread - connecting to controller registered.");
    checkStop();

    if (m_config.has("data_rate")) {
        long rate = 0;
        if (parseDecimal(m_config.get("data_rate"), rate) && rate >= 0 && rate <= 86400 * 31)
            data_rate = static_cast<int>(rate);
        else
            MTD_LOG(Warning, "CMtdBaseDriver::functionThread wrong data_rate '%s', %d is kept",
                    m_config.get("data_rate").c_str(), data_rate);
        MTD_LOG(Info, "CMtdBaseDriver::functionThread data_rate = %d", data_rate);
    }

    before_write_passport();
    writeGasPasport();
    checkStop();

    MTD_LOG(Info, "CMtdBaseDriver::functionThread begin all current values.");
    std::vector<CValueRecord> values = get_all_curtime_cur_integ_values();
    if (!values.empty()) {
        m_status->lastAnswer = now();
        m_status->lastValues = values;
    }
    if (m_rpc)
        m_rpc->SendAllCurrentValues(values);
    MTD_LOG(Info, "CMtdBaseDriver::functionThread end all current values.");
    checkStop();

    if (archiveDue(ARCH_DAILY, when_next_arch_daily)) {
        ReadDailyArch();
        checkStop();
    }

    if (archiveDue(ARCH_HOURLY, when_next_arch_hourly)) {
        ReadHourlyArch();
        checkStop();
        ReadJournalEventArch();
        checkStop();
        ReadJournalInterventArch();
        checkStop();
        if (time_t window = sync_time(when_next_sync_window))
            when_next_sync_window = window;
        checkStop();
    }

    for (int sys = kFirstSystem; sys <= kLastSystem; ++sys) {
        m_store->ReleaseArchives(sys, "tmp_archives");
        m_store->ReleaseArchives(sys, "tc_tmp_archives");
    }

    // The session ends before the turn goes back: the next driver may start
    // talking on the line as soon as it has the turn.
    closeSession();
    m_cycleDone.store(1);
    // Written before the turn goes back, so whoever waits for the turn sees it.
    const time_t end = now();
    ++m_status->cycles;
    m_status->cycleEnded = end;
    m_status->lastGoodRead = end;
    m_status->outcome = "ok";
    m_status->state = "waiting";
    m_status->dataRate = data_rate;
    writeStatus();
    returnTurn();
    cycle_end();
    if (m_store->PendingUpdate())
        MTD_LOG(Debug, "CMtdBaseDriver::functionThread - new archive records were stored in this cycle.");
}

// ---- archive readers ----

bool CMtdBaseDriver::archiveDue(int archType, time_t next) {
    const time_t t = now();
    if (next + kArchiveMargin >= t)
        return false;
    const time_t last = m_store->GetLastTimestamp(archType);
    const char* kind = archType == ARCH_DAILY ? "DAILY" : "HOURLY";
    logScheduleTime(std::string(kind) + ": current time", t);
    logScheduleTime(std::string(kind) + ": last time", last);
    logScheduleTime(std::string(kind) + ": next time", next);
    return true;
}

time_t CMtdBaseDriver::lastStoredTime(int archType) const {
    return m_store ? m_store->GetLastTimestamp(archType) : 0;
}

time_t CMtdBaseDriver::GetMaxTimestampIn(int archType, time_t start) {
    const time_t last = lastStoredTime(archType);
    MTD_LOG(Info, "CMtdBaseDriver::GetMaxTimestampIn() start timestamp = %d, max read timestamp = %d (%s)", (int)start,
            (int)last, TimeText(last).text);
    return last;
}

bool CMtdBaseDriver::storeArchive(int archType, const std::vector<ArchiveRecord>& records) {
    if (records.empty() || !m_store)
        return true;
    if (!m_store->StoreRecords(archType, records))
        return false;  // nothing became visible; the same window is read again next time
    const time_t last = m_store->GetLastTimestamp(archType);
    if (m_status) {
        m_status->recordsStored += records.size();
        m_status->lastAnswer = now();
        if (archType >= ARCH_HOURLY && archType <= ARCH_JOURNAL_INTERVENT)
            m_status->lastStored[archType] = last;
    }
    if (last <= 0)
        return true;
    switch (archType) {
    case ARCH_HOURLY:
        when_next_arch_hourly = std::max(when_next_arch_hourly.load(), last - last % 60 + 3600);
        break;
    case ARCH_DAILY: {
        const time_t next = std::max(when_next_arch_daily.load(), last - last % 3600 + 86400);
        when_next_arch_daily = next;
        MTD_LOG(Info, "CMtdBaseDriver::ReadDaylyArch(First) next read daily timestamp = %d (%s)", (int)next,
                TimeText(next).text);
        break;
    }
    case ARCH_JOURNAL_EVENT:
        when_next_arch_journal_event = std::max(when_next_arch_journal_event.load(), last + 1);
        break;
    case ARCH_JOURNAL_INTERVENT:
        when_next_arch_journal_intervent = std::max(when_next_arch_journal_intervent.load(), last + 1);
        break;
    default:
        break;
    }
    return true;
}

time_t CMtdBaseDriver::StoreOfDriver::lastStored(int archType) const {
    return m_driver.m_store ? m_driver.m_store->GetLastTimestamp(archType) : 0;
}

size_t CMtdBaseDriver::readAndStore(int archType, time_t from, time_t to) {
    StoreOfDriver store(*this);
    CArchiveSink sink(store, archType, from, to, &m_cancel);
    try {
        readArchive(sink);
    } catch (...) {
        sink.finish(false);
        throw;
    }
    return sink.finish(true);
}

int CMtdBaseDriver::ReadHourlyArch() { return readFromNext(ARCH_HOURLY, when_next_arch_hourly, nullptr); }

int CMtdBaseDriver::ReadDailyArch() {
    const time_t t = now();
    const time_t next = when_next_arch_daily;
    if (next >= t) {
        MTD_LOG(Info, "CMtdBaseDriver::ReadDailyArch Time next param less than the current.");
        return 0;
    }
    time_t deviceTime = 0;
    int rateHour = 0;
    const int commerceHour = GetTimestamps(deviceTime, rateHour) ? rateHour : static_cast<int>(rateHourOffset() / 3600);
    MTD_LOG(Info, "+++ CMtdBaseDriver::ReadDailyArch:    commerceHour         = %d", commerceHour);
    const time_t maxHour = GetMaxTimestampIn(ARCH_DAILY, next);
    MTD_LOG(Info, "+++ CMtdBaseDriver::ReadDailyArch:    maxHour              = %d (%s)", (int)maxHour,
            TimeText(maxHour).text);
    const size_t read = readAndStore(ARCH_DAILY, next, t);
    if (read == 0)
        MTD_LOG(Info, "CMtdBaseDriver::ReadDailyArch archive hourly info is absent.");
    return static_cast<int>(read);
}

int CMtdBaseDriver::readFromNext(int archType, const std::atomic<time_t>& nextTime, const char* absentText) {
    const time_t t = now();
    const time_t next = nextTime;
    if (next >= t) {
        MTD_LOG(Info, "CMtdBaseDriver:: Time next param less than the current.");
        return 0;
    }
    GetMaxTimestampIn(archType, next);
    const size_t read = readAndStore(archType, next, t);
    if (read == 0 && absentText)
        MTD_LOG(Info, "%s", absentText);
    return static_cast<int>(read);
}

int CMtdBaseDriver::ReadJournalEventArch() {
    return readFromNext(ARCH_JOURNAL_EVENT, when_next_arch_journal_event,
                        "CMtdBaseDriver::ReadJournalEventArch archive info is absent.");
}

int CMtdBaseDriver::ReadJournalInterventArch() {
    return readFromNext(ARCH_JOURNAL_INTERVENT, when_next_arch_journal_intervent,
                        "CMtdBaseDriver::ReadJournalInterventArch archive info is absent.");
}

bool CMtdBaseDriver::GetArchActual() {
    const time_t t = now();
    const time_t hourly = when_next_arch_hourly;
    const time_t daily = when_next_arch_daily;
    MTD_LOG(Debug, "CMtdBaseDriver::GetArchActual(): hourly = %d, dayly = %d, dt = %d, mod = %d, curr = %d",
            (int)hourly, (int)daily, (int)(t - hourly), (int)(t % 3600), (int)t);
    // The main loop's step is also when the control files are looked at again:
    // a paused driver rechecks its pause, a waiting one its force-update file.
    if (m_paused.load()) {
        m_pauseTick.store(true);
        Wake();
    } else if (!m_forceUpdate.load() && CControlFiles(m_paths.controlDir).forceUpdateRequested(m_config.meter_id)) {
        m_forceUpdate.store(true);
        Wake();
    }
    return hourly + kArchiveMargin < t || daily + kArchiveMargin < t;
}

// ---- default device operations: a driver overrides what its device has ----

void CMtdBaseDriver::Wait(int seconds, bool /*flag*/) {
    const time_t target = now() + seconds;
    while (!isStopping() && !m_forceUpdate.load() && m_clock->now() < target)
        waitUntil(m_clock->deadlineFor(target),
                  [this, target] { return m_forceUpdate.load() || m_clock->now() >= target; });
}

void CMtdBaseDriver::SaveConnector(CConnector* connector) { m_connector = connector; }

bool CMtdBaseDriver::init() { return true; }

std::vector<CValueRecord> CMtdBaseDriver::get_all_curtime_cur_integ_values() { return {}; }

std::vector<CValueRecord> CMtdBaseDriver::get_all_system_values() { return {}; }

void CMtdBaseDriver::readArchive(CArchiveSink& sink) {
    const int archType = sink.type();
    if (!hasArchive(archType)) {
        MTD_DLOG(Warning, "%s::get_arch_values() - ARCHIVE TYPE %d (%s) NOT SUPPORTED !!!", driverName(), archType,
                 archTypeName(archType));
        return;
    }
    MTD_DLOG(Info, "--- %s::get_arch_values(%s) ---------------------------------", driverName(),
             archTypeName(archType));
    time_t clock = 0;
    int rateHour = 0;
    // Nothing is asked for past the meter's own clock: an interval it has not
    // closed yet would come back empty, or not at all.
    if (archiveWindowEndsAtDeviceClock() && GetTimestamps(clock, rateHour) && sink.to() > clock) {
        MTD_DLOG(Info, "%s::get_arch_values() - end_dt = curr_dt because end_dt > curr_dt = %d (%s)", driverName(),
                 static_cast<int>(clock), clockText(clock).c_str());
        sink.clipTo(clock);
    }
    if (sink.from() > sink.to())
        return;
    get_arch_values(sink);
}

void CMtdBaseDriver::get_arch_values(CArchiveSink&) {}

bool CMtdBaseDriver::hasArchive(int) const { return true; }

std::string CMtdBaseDriver::clockText(time_t t) const {
    char text[32];
    struct tm tm {};
    gmtime_r(&t, &tm);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

bool CMtdBaseDriver::GetTimestamps(time_t&, int&) { return false; }

void CMtdBaseDriver::before_write_passport() {}

void CMtdBaseDriver::cycle_end() {}

void CMtdBaseDriver::session_close() {}

time_t CMtdBaseDriver::sync_time(time_t) { return 0; }

void CMtdBaseDriver::writeGasPasport() {}
