#pragma once
// The archive store of one meter: records are written as JSON Lines files under
// <root>/<id>/<sys>/<folder>/ and released to the reporter's folder under the
// lock protocol. A batch becomes visible whole or not at all (temporary file,
// fsync, rename, fsync of the folder), and the last stored timestamp of each
// archive kind is recovered from disk, so records are never lost or stored twice.

#include <ctime>
#include <string>
#include <vector>

#include "shell/Defaults.h"
#include "storage/ArchiveRecord.h"
#include "storage/CControlFiles.h"

class GasFileConnector {
public:
    GasFileConnector(std::string meterId, std::string storageRoot = mtd::defaults::kStorageRoot,
                     std::string controlDir = mtd::defaults::kControlDir);

    // Newest stored record time of the kind over all systems; 0 when none.
    time_t GetLastTimestamp(int archType) const;
    // Stores a batch durably. Records not newer than what is stored for their
    // kind and system are dropped as duplicates. False (logged) when the batch
    // could not be written; then nothing of it is visible and it may be retried.
    bool StoreRecords(int archType, const std::vector<ArchiveRecord>& records);

    // Moves finished files into the reporter's folder under the lock protocol.
    bool ReleaseArchives(int sys, const std::string& folder);
    // Takes back what an interrupted run left in rotate/<folder>/.
    bool RemoveTmpArchivesSys(int sys, const std::string& folder);
    // True when records were stored since the last call.
    bool PendingUpdate();

    // Time to wait between looks at a reporter lock (60 s; tests shorten it).
    void setLockWaitSeconds(unsigned seconds) { m_lockWaitSeconds = seconds; }

private:
    std::string m_meterId;
    std::string m_root;
    CControlFiles m_control;
    unsigned m_lockWaitSeconds = 60;
    bool m_pending = false;
};
