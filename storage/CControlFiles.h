// SPDX-License-Identifier: Apache-2.0
#pragma once
// Small files in the control directory ("/tmp/") shared with other processes:
// lock files that guard the folders shared with the reporter, pause and
// force-update flags, and the passport (set-value) file.
//
// "/tmp/" is writable by every local user, so a file there is honoured only
// when it is a regular file owned by root or by the daemon's own user (or, when
// the daemon runs with a group of its own, by that group) and not writable by
// others. Anything else gets one Warning (file name first, then owner and
// mode) and is ignored, as if it were absent; an untrusted passport file is
// left where it is. Each look opens the name with O_PATH | O_NOFOLLOW and
// judges the descriptor with fstat, so the file judged is the file used.

#include <sys/types.h>

#include <map>
#include <string>

#include "core/Defaults.h"

enum LockKind : int { LOCK_DRIVER = 0, LOCK_REPORTER = 1 };

struct stat;

// Who may leave control files for the daemon: root, `user`, and the owners
// of files in `group` when `hasGroup`.
struct ControlFileOwners {
    uid_t user = 0;
    gid_t group = 0;
    bool hasGroup = false;
    // The process's effective user; its effective group counts when it is not
    // root's (the unit names a Group=).
    static ControlFileOwners ofProcess();
    // True when `st` describes a file these owners' daemon may honour.
    bool trusts(const struct stat& st) const;
};

class CControlFiles {
public:
    explicit CControlFiles(std::string controlDir = mtd::defaults::kControlDir,
                           ControlFileOwners owners = ControlFileOwners::ofProcess());

    // controlDir + "DRV_LCK_" / "RPRT_LCK_" / "" (any other kind) + name.
    std::string lockPath(int kind, const std::string& name) const;
    void createLock(int kind, const std::string& name) const;  // 0644, O_NOFOLLOW; result ignored
    bool lockExists(int kind, const std::string& name) const;
    void removeLock(int kind, const std::string& name) const;  // result ignored

    // "pause_gmd_all", "pause_gmd" or "pause_gmd_<id>" exists.
    bool pauseActive(const std::string& meterId) const;
    // "gmd_force_update_<id>" exists.
    bool forceUpdateRequested(const std::string& meterId) const;
    // Removes "gmd_force_update_<id>"; true when it existed.
    bool takeForceUpdate(const std::string& meterId) const;

    // "gmd_set_value_<id>"; empty for an unsafe identifier.
    std::string passportPath(const std::string& meterId) const;
    enum PassportResult { PASSPORT_NONE, PASSPORT_OK, PASSPORT_REFUSED };
    // Reads the passport file: a JSON object from passport name to value text.
    // A trusted file larger than 64 KiB or not such an object is logged and
    // removed (PASSPORT_REFUSED); an untrusted one (owner, mode, not a regular
    // file) is logged and left in place (PASSPORT_REFUSED); nothing is half-applied.
    PassportResult readPassport(const std::string& meterId, std::map<std::string, std::string>& values) const;

    // Largest passport file accepted.
    static constexpr long kMaxPassportBytes = 64 * 1024;

    const std::string& dir() const { return m_dir; }

private:
    // True when `path` exists and may be honoured; an untrusted file is
    // reported (once while it stays the same) and counts as absent.
    bool trustedExists(const std::string& path) const;
    // Judges an open descriptor (its fstat in `st`); false (and the Warning)
    // when it is not trusted.
    bool trustedDescriptor(int fd, const std::string& path, struct stat& st) const;

    std::string m_dir;
    ControlFileOwners m_owners;
};

// A meter identifier that could escape its folder (empty, ".", "..", "/" or
// control characters) is refused before any path is built from it.
bool isSafeMeterId(const std::string& meterId);
