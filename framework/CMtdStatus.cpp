// SPDX-License-Identifier: Apache-2.0
#include "framework/CMtdStatus.h"

#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/ReplaceFile.h"
#include "core/logger.h"
#include "core/ArchiveRecord.h"
#include "storage/CControlFiles.h"

#ifndef MTD_VERSION
#define MTD_VERSION "unknown"
#endif

namespace {

// Member names of the archive kinds, in ArchType order.
const char* const kArchiveKeys[] = {"hourly", "daily", "events", "interventions"};

Json::Value timeValue(time_t t) { return Json::Value(static_cast<Json::Int64>(t)); }

}  // namespace

CMtdStatus::CMtdStatus(std::string dir, std::string meterId) : m_dir(std::move(dir)), m_meterId(std::move(meterId)) {
    if (!m_dir.empty() && m_dir.back() != '/')
        m_dir += '/';
    if (isSafeMeterId(m_meterId))
        m_path = m_dir + "mtd_status_" + m_meterId + ".json";
}

long CMtdStatus::residentKiB() {
    FILE* f = std::fopen("/proc/self/statm", "re");
    if (!f)
        return 0;
    long size = 0, resident = 0;
    const int got = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    if (got != 2)
        return 0;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::string CMtdStatus::document(time_t now) const {
    Json::Value doc(Json::objectValue);
    doc["version"] = MTD_VERSION;
    doc["meter_id"] = m_meterId;
    doc["model"] = model;
    doc["driver"] = driverClass;
    doc["pid"] = static_cast<int>(getpid());
    doc["updated"] = timeValue(now);
    doc["started"] = timeValue(started);
    doc["state"] = state;
    doc["paused"] = paused;
    doc["data_rate"] = dataRate;

    Json::Value& cycle = doc["last_cycle"];
    cycle = Json::Value(Json::objectValue);
    cycle["started"] = timeValue(cycleStarted);
    cycle["ended"] = timeValue(cycleEnded);
    cycle["outcome"] = outcome;
    doc["last_good_read"] = timeValue(lastGoodRead);
    doc["last_answer"] = timeValue(lastAnswer);

    Json::Value values(Json::arrayValue);
    for (const CValueRecord& v : lastValues) {
        Json::Value item(Json::objectValue);
        item["name"] = v.name;
        item["value"] = v.value;
        item["dim"] = v.dim;
        values.append(item);
    }
    doc["values"] = values;

    Json::Value archives(Json::objectValue);
    for (int kind = ARCH_HOURLY; kind <= ARCH_JOURNAL_INTERVENT; ++kind) {
        Json::Value a(Json::objectValue);
        const time_t last = lastStored[kind];
        a["last"] = timeValue(last);
        // No record stored yet: the lag is unknown, not "since 1970".
        a["lag"] = last > 0 ? timeValue(now - last) : Json::Value();
        archives[kArchiveKeys[kind]] = a;
    }
    doc["archives"] = archives;

    Json::Value counters(Json::objectValue);
    counters["cycles"] = static_cast<Json::UInt64>(cycles);
    counters["failed_cycles"] = static_cast<Json::UInt64>(failedCycles);
    counters["timeouts"] = static_cast<Json::UInt64>(link.timeouts.load());
    counters["checksum_errors"] = static_cast<Json::UInt64>(link.checksumErrors.load());
    counters["retries"] = static_cast<Json::UInt64>(link.retries.load());
    counters["records_stored"] = static_cast<Json::UInt64>(recordsStored);
    doc["counters"] = counters;
    doc["rss_kb"] = static_cast<Json::Int64>(residentKiB());

    Json::StreamWriterBuilder builder;
    builder["indentation"] = " ";
    return Json::writeString(builder, doc) + "\n";
}

bool CMtdStatus::write(time_t now) const {
    if (m_path.empty())
        return false;
    const char* step = nullptr;
    if (!mtd::replaceFile(m_path, document(now), &step)) {
        const int err = errno;
        MTD_LOG(Warning, "CMtdStatus::write() - %s of '%s' failed: %s", step, m_path.c_str(), std::strerror(err));
        return false;
    }
    return true;
}

void CMtdStatus::remove() const {
    if (!m_path.empty())
        ::unlink(m_path.c_str());
}
