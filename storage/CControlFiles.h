// SPDX-License-Identifier: Apache-2.0
#pragma once
// Small files in the control directory ("/tmp/") shared with other processes:
// lock files that guard the folders shared with the reporter, pause and
// force-update flags, and the passport (set-value) file.

#include <map>
#include <string>

#include "core/Defaults.h"

enum LockKind : int { LOCK_DRIVER = 0, LOCK_REPORTER = 1 };

class CControlFiles {
public:
    explicit CControlFiles(std::string controlDir = mtd::defaults::kControlDir);

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
    // A file that is not regular, larger than 64 KiB or not such an object is
    // logged and removed (PASSPORT_REFUSED); nothing is half-applied.
    PassportResult readPassport(const std::string& meterId, std::map<std::string, std::string>& values) const;

    // Largest passport file accepted.
    static constexpr long kMaxPassportBytes = 64 * 1024;

    const std::string& dir() const { return m_dir; }

private:
    std::string m_dir;
};

// A meter identifier that could escape its folder (empty, ".", "..", "/" or
// control characters) is refused before any path is built from it.
bool isSafeMeterId(const std::string& meterId);
