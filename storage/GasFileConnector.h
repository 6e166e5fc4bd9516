// SPDX-License-Identifier: Apache-2.0
#pragma once
// The archive store of one meter: records are written as JSON Lines files under
// <root>/<id>/<sys>/<folder>/ and released to the reporter's folder under the
// lock protocol. A batch becomes visible whole or not at all (temporary file,
// fsync, rename, fsync of the folder), and the last stored timestamp of each
// archive kind is recovered from disk, so records are never lost or stored twice.
//
// Layout below <root>/<id>/<sys>/ (docs/storage.md has the details):
//   rotate/<folder>/   batches written by the driver, not yet released
//   <folder>/          what the reporter reads ("tmp_archives": hourly and daily,
//                      "tc_tmp_archives": event and intervention journals)
//   state/<kind>.last  newest stored timestamp of a kind, as decimal text
// Batch files are named "<kind>-<first>-<last>.jsonl" (Unix seconds), so the
// newest timestamp can also be recovered from the names of unreleased files.

#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/Defaults.h"
#include "core/ArchiveRecord.h"
#include "storage/CControlFiles.h"

class GasFileConnector {
public:
    GasFileConnector(std::string meterId, std::string storageRoot = mtd::defaults::kStorageRoot,
                     std::string controlDir = mtd::defaults::kControlDir);
    virtual ~GasFileConnector() = default;
    GasFileConnector(const GasFileConnector&) = delete;
    GasFileConnector& operator=(const GasFileConnector&) = delete;

    // Newest stored record time of the kind over all systems; 0 when none.
    time_t GetLastTimestamp(int archType) const;
    // Newest stored record time of the kind for one system; 0 when none.
    time_t GetLastTimestamp(int archType, int sys) const;
    // Stores a batch durably. Records not newer than what is stored for their
    // kind and system are dropped as duplicates. False (logged) when the batch
    // could not be written; then nothing of it is visible and it may be retried.
    bool StoreRecords(int archType, const std::vector<ArchiveRecord>& records);

    // Moves finished files into the reporter's folder under the lock protocol.
    // `folder` is "tmp_archives", "tc_tmp_archives" or "tc_archives".
    bool ReleaseArchives(int sys, const std::string& folder);
    // Takes back what an interrupted run left in rotate/<folder>/.
    bool RemoveTmpArchivesSys(int sys, const std::string& folder);
    // True when records were stored since the last call.
    bool PendingUpdate();

    // Time to wait between looks at a reporter lock (60 s; tests shorten it).
    void setLockWaitSeconds(unsigned seconds) { m_lockWaitSeconds = seconds; }
    // Replaces the blocking sleep between looks at a reporter lock. The waiter
    // returns false to give the release up (orderly shutdown); the default
    // sleeps and never gives up.
    using LockWaiter = std::function<bool(unsigned seconds)>;
    void setLockWaiter(LockWaiter waiter);

    // The folder the batches of an archive kind go to; nullptr for an unknown kind.
    static const char* folderFor(int archType);
    // Text of the lock files guarding a reporter folder: "<id>_<sys>_<folder>".
    std::string lockName(int sys, const std::string& folder) const;
    // "<root>/<id>/<sys>/"
    std::string sysDir(int sys) const;

protected:
    // rename(2) for the commit of batch and state files; tests override it to
    // simulate a crash or a full disk at that very step.
    virtual int renameFile(const std::string& from, const std::string& to);

private:
    using Key = std::pair<int, int>;  // (sys, archive kind)

    void recoverSystem(int sys);
    bool writeBatch(int sys, int archType, const std::vector<std::string>& lines, long long first, long long last);
    bool writeFileDurably(const std::string& dir, const std::string& name, const std::string& content);
    bool saveState(int sys, int archType);
    bool saveDirtyStates(int sys);
    bool moveIntoReporterFolder(int sys, const std::string& folder, bool takeBack);

    std::string m_meterId;
    std::string m_root;
    CControlFiles m_control;
    unsigned m_lockWaitSeconds = 60;
    bool m_pending = false;
    bool m_valid = false;
    std::map<Key, time_t> m_last;
    // Kinds whose state file lags behind m_last (a failed write); released
    // files are held back until it is saved, or a restart could store them twice.
    std::set<Key> m_dirty;
    LockWaiter m_waiter;
};
