// SPDX-License-Identifier: Apache-2.0
#pragma once
// The archive store of one meter: records are written as JSON Lines files under
// <root>/<id>/<sys>/<folder>/ and released to the reporter's folder under the
// lock protocol. A batch becomes visible whole or not at all (temporary file,
// fsync, rename, fsync of the folder; a new folder is synced in its parent),
// and counts as stored only when every one of those steps succeeded. The last
// stored timestamp of each archive kind is recovered from disk, so records are
// never lost or stored twice.
//
// Layout below <root>/<id>/<sys>/ (docs/storage.md has the details):
//   rotate/<folder>/   batches written by the driver, not yet released
//   <folder>/          what the reporter reads ("tmp_archives": hourly and daily,
//                      "tc_tmp_archives": event and intervention journals)
//   state/<kind>.last  newest stored timestamp of a kind: one line, the decimal
//                      time, a blank and the CRC-32 of the time's text in eight
//                      hex digits ("1700006400 5d1a0c3e\n"); read back strictly.
//                      A file that fails the check is rebuilt from the batch
//                      names (with an Err line), never taken as a smaller time.
//                      The older form, the time alone and a newline, is still
//                      read when whole, and rewritten in the checked form.
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

    // The state file's text for a timestamp: "<time> <crc32 hex>\n".
    static std::string stateText(long long last);
    enum StateCheck { STATE_OK, STATE_OLD_FORMAT, STATE_BAD };
    // Reads a state file's text strictly: the checked line, or the older
    // "<time>\n" (STATE_OLD_FORMAT); anything else, a truncated or torn file
    // included, is STATE_BAD and `last` is 0.
    static StateCheck parseStateText(const std::string& text, long long& last);
    // "<kind>-<first>-<last>.jsonl" with canonical decimals and first <= last.
    static bool parseBatchName(const std::string& name, const std::string& kind, long long& first, long long& last);

protected:
    // rename(2) for the commit of batch and state files; tests override it to
    // simulate a crash or a full disk at that very step.
    virtual int renameFile(const std::string& from, const std::string& to);
    // fsync(2) of a file or a folder (`path` names it); tests override it to
    // simulate a device that fails to write back.
    virtual int syncFile(int fd, const std::string& path);

private:
    using Key = std::pair<int, int>;  // (sys, archive kind)

    void recoverSystem(int sys);
    // Creates `path` and its parents below the root, each new folder synced in its parent.
    bool makeDirs(const std::string& path);
    bool syncFolder(const std::string& dir);
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
    // Folders holding a new folder that could not be synced yet (makeDirs).
    std::set<std::string> m_unsyncedParents;
    LockWaiter m_waiter;
};
