// SPDX-License-Identifier: Apache-2.0
#include "storage/GasFileConnector.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/logger.h"
#include "core/CUniqueFd.h"

namespace {

// System numbers are small channel numbers of one meter; anything else is a driver bug.
constexpr int kMaxSys = 255;
constexpr const char* kBatchSuffix = ".jsonl";
const char* const kReporterFolders[] = {"tmp_archives", "tc_tmp_archives", "tc_archives"};
const int kArchTypes[] = {ARCH_HOURLY, ARCH_DAILY, ARCH_JOURNAL_EVENT, ARCH_JOURNAL_INTERVENT};

std::string withSlash(std::string dir) {
    if (!dir.empty() && dir.back() != '/')
        dir += '/';
    return dir;
}

bool endsWith(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// Parses a whole decimal number in its canonical form ("0" or no leading
// zero); false for anything else (sign, blanks, overflow).
bool parseDecimal(const std::string& text, long long& value) {
    if (text.empty() || text.size() > 18 || (text.size() > 1 && text[0] == '0'))
        return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

// CRC-32 (IEEE 802.3, reflected 0xEDB88320) of a short text.
uint32_t crc32(const std::string& text) {
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char c : text) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// Longest state file read; anything longer is not one.
constexpr size_t kMaxStateBytes = 64;

// Names of the entries of a folder, without "." and ".."; false when it cannot be opened.
bool listDir(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return false;
    while (struct dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..")
            names.push_back(std::move(name));
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return true;
}

bool isRegularFile(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8SequenceLength(const std::string& s, size_t i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t len = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (len == 0 || i + len > s.size())
        return 0;
    for (size_t k = 1; k < len; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80)
            return 0;
    return len;
}

// JSON string literal. Meters answer in whatever code page their firmware
// uses; a byte that is not part of valid UTF-8 is kept as \u00XX so the line
// stays valid JSON and the byte can still be recognised.
void appendJsonString(std::string& out, const std::string& s) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else if (c >= 0x80) {
            if (size_t len = utf8SequenceLength(s, i)) {
                out.append(s, i, len);
                i += len;
                continue;
            }
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        } else {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
        ++i;
    }
    out += '"';
}

// One line of the archive file. Written by hand: a JSON library would sort the
// members of "fields", and the reporter shows them in the device's column order.
std::string recordLine(const std::string& meterId, int archType, const ArchiveRecord& r) {
    std::string line = "{\"meter\":";
    appendJsonString(line, meterId);
    line += ",\"sys\":" + std::to_string(r.sys);
    line += ",\"archive\":";
    appendJsonString(line, archTypeName(archType));
    line += ",\"timestamp\":" + std::to_string(r.timestamp);
    // The same instant in UTC, for whoever reads the file on the controller.
    char iso[32] = "";
    time_t t = static_cast<time_t>(r.timestamp);
    struct tm tmv;
    if (gmtime_r(&t, &tmv))
        strftime(iso, sizeof iso, "%Y-%m-%dT%H:%M:%SZ", &tmv);
    line += ",\"time\":\"";
    line += iso;
    line += "\",\"fields\":{";
    std::set<std::string> seen;
    bool firstField = true;
    for (const auto& field : r.fields) {
        if (!seen.insert(field.first).second) {
            MTD_LOG(Warning, "GasFileConnector::StoreRecords repeated field '%s' at %lld dropped", field.first.c_str(),
                    r.timestamp);
            continue;
        }
        if (!firstField)
            line += ',';
        firstField = false;
        appendJsonString(line, field.first);
        line += ':';
        appendJsonString(line, field.second);
    }
    line += "}}\n";
    return line;
}

// Drops the driver lock however the release ends.
class DriverLockGuard {
public:
    DriverLockGuard(const CControlFiles& control, std::string name) : m_control(control), m_name(std::move(name)) {
        m_control.createLock(LOCK_DRIVER, m_name);
    }
    ~DriverLockGuard() { m_control.removeLock(LOCK_DRIVER, m_name); }
    DriverLockGuard(const DriverLockGuard&) = delete;
    DriverLockGuard& operator=(const DriverLockGuard&) = delete;

private:
    const CControlFiles& m_control;
    std::string m_name;
};

// Never overwrites a file the reporter has not taken yet.
int renameNoReplace(const std::string& from, const std::string& to) {
    int rc = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (rc != 0 && (errno == EINVAL || errno == ENOSYS)) {
        // File system without RENAME_NOREPLACE: test first (only we write here).
        struct stat st;
        if (::lstat(to.c_str(), &st) == 0) {
            errno = EEXIST;
            return -1;
        }
        rc = ::rename(from.c_str(), to.c_str());
    }
    return rc;
}

}  // namespace

GasFileConnector::GasFileConnector(std::string meterId, std::string storageRoot, std::string controlDir)
    : m_meterId(std::move(meterId)), m_root(withSlash(std::move(storageRoot))), m_control(std::move(controlDir)),
      m_valid(isSafeMeterId(m_meterId)) {
    if (!m_valid) {
        MTD_LOG(Err, "GasFileConnector: unsafe meter identifier refused, archives are not stored");
        return;
    }
    // Recover the newest stored timestamps of every system found on disk.
    std::vector<std::string> entries;
    listDir(m_root + m_meterId, entries);
    for (const std::string& name : entries) {
        long long sys = 0;
        if (!parseDecimal(name, sys) || sys > kMaxSys || name != std::to_string(sys))
            continue;
        recoverSystem(static_cast<int>(sys));
        // Only this process releases this meter's folders, so a driver lock of
        // ours that exists now was left by a run that was killed mid-release;
        // the reporter would wait on it for ever.
        for (const char* folder : kReporterFolders) {
            const std::string lock = lockName(static_cast<int>(sys), folder);
            if (m_control.lockExists(LOCK_DRIVER, lock)) {
                MTD_LOG(Notice, "GasFileConnector: stale driver lock [%s] removed", lock.c_str());
                m_control.removeLock(LOCK_DRIVER, lock);
            }
        }
    }
}

void GasFileConnector::setLockWaiter(LockWaiter waiter) {
    m_waiter = std::move(waiter);
}

const char* GasFileConnector::folderFor(int archType) {
    switch (archType) {
    case ARCH_HOURLY:
    case ARCH_DAILY: return "tmp_archives";
    case ARCH_JOURNAL_EVENT:
    case ARCH_JOURNAL_INTERVENT: return "tc_tmp_archives";
    default: return nullptr;
    }
}

std::string GasFileConnector::sysDir(int sys) const {
    return m_root + m_meterId + "/" + std::to_string(sys) + "/";
}

std::string GasFileConnector::lockName(int sys, const std::string& folder) const {
    return m_meterId + "_" + std::to_string(sys) + "_" + folder;
}

int GasFileConnector::renameFile(const std::string& from, const std::string& to) {
    return ::rename(from.c_str(), to.c_str());
}

int GasFileConnector::syncFile(int fd, const std::string& /*path*/) {
    return ::fsync(fd);
}

// A rename or a new entry only reaches the disk once the folder holding it is synced.
bool GasFileConnector::syncFolder(const std::string& dir) {
    CUniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && syncFile(fd.get(), dir) == 0;
}

// The root must exist: an unmounted storage card must not be replaced by
// folders on the controller's own flash. Each folder made here is synced in
// its parent, or a power cut could take it (and the batch in it) away on a
// file system without a journal (the FAT cards of some controllers).
bool GasFileConnector::makeDirs(const std::string& path) {
    struct stat st;
    if (::stat(m_root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return false;
    // A folder made by an earlier call whose parent could not be synced then:
    // it exists now, but is not on the disk until its parent is synced.
    for (auto it = m_unsyncedParents.begin(); it != m_unsyncedParents.end();) {
        if (!syncFolder(*it)) {
            MTD_LOG(Err, "GasFileConnector: cannot sync folder [%s]: %s", it->c_str(), strerror(errno));
            return false;
        }
        it = m_unsyncedParents.erase(it);
    }
    for (size_t pos = m_root.size(); pos < path.size();) {
        size_t slash = path.find('/', pos);
        if (slash == std::string::npos)
            slash = path.size();
        const std::string part = path.substr(0, slash);
        if (::mkdir(part.c_str(), 0755) == 0) {
            const std::string parent = path.substr(0, pos);
            if (!syncFolder(parent)) {
                MTD_LOG(Err, "GasFileConnector: cannot sync folder [%s]: %s", parent.c_str(), strerror(errno));
                m_unsyncedParents.insert(parent);
                return false;
            }
        } else if (errno != EEXIST) {
            return false;
        }
        pos = slash + 1;
    }
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string GasFileConnector::stateText(long long last) {
    const std::string time = std::to_string(last);
    char crc[9];
    std::snprintf(crc, sizeof crc, "%08x", static_cast<unsigned>(crc32(time)));
    return time + " " + crc + "\n";
}

GasFileConnector::StateCheck GasFileConnector::parseStateText(const std::string& text, long long& last) {
    last = 0;
    if (text.empty() || text.size() > kMaxStateBytes || text.back() != '\n')
        return STATE_BAD;  // a file cut anywhere has lost its newline
    const std::string line = text.substr(0, text.size() - 1);
    const size_t blank = line.find(' ');
    long long value = 0;
    if (blank == std::string::npos) {
        // The older form: the time alone. Zero was never written.
        if (!parseDecimal(line, value) || value == 0)
            return STATE_BAD;
        last = value;
        return STATE_OLD_FORMAT;
    }
    const std::string time = line.substr(0, blank);
    const std::string crc = line.substr(blank + 1);
    if (!parseDecimal(time, value) || crc.size() != 8)
        return STATE_BAD;
    if (stateText(value) != text)
        return STATE_BAD;
    last = value;
    return STATE_OK;
}

bool GasFileConnector::parseBatchName(const std::string& name, const std::string& kind, long long& first,
                                      long long& last) {
    const size_t suffix = std::strlen(kBatchSuffix);
    if (name.size() <= kind.size() + 1 + suffix || name.compare(0, kind.size() + 1, kind + "-") != 0 ||
        !endsWith(name, kBatchSuffix))
        return false;
    const std::string range = name.substr(kind.size() + 1, name.size() - kind.size() - 1 - suffix);
    const size_t dash = range.find('-');
    if (dash == std::string::npos || !parseDecimal(range.substr(0, dash), first) ||
        !parseDecimal(range.substr(dash + 1), last))
        return false;
    return first > 0 && first <= last;
}

// The state file is the authority once the reporter has taken the files, but a
// crash may come between a batch's rename and the state's: the names of the
// batch files not yet released then tell the newer truth.
void GasFileConnector::recoverSystem(int sys) {
    const std::string base = sysDir(sys);
    for (int type : kArchTypes) {
        const std::string kind = archTypeName(type);
        long long last = 0;
        StateCheck check = STATE_OK;
        const std::string statePath = base + "state/" + kind + ".last";
        CUniqueFd fd(::open(statePath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        if (fd.valid()) {
            char buf[kMaxStateBytes + 1];
            ssize_t n;
            do
                n = ::read(fd.get(), buf, sizeof buf);
            while (n < 0 && errno == EINTR);
            check = parseStateText(n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string(), last);
            if (check == STATE_BAD)
                MTD_LOG(Err, "GasFileConnector: state file [%s] fails its check, rebuilt from the batch files",
                        statePath.c_str());
        } else if (errno != ENOENT) {
            check = STATE_BAD;
            MTD_LOG(Err, "GasFileConnector: state file [%s] unreadable, rebuilt from the batch files: %s",
                    statePath.c_str(), strerror(errno));
        }
        long long fromNames = 0;
        const std::string folder = folderFor(type);
        for (const std::string& dir : {base + "rotate/" + folder + "/", base + folder + "/"}) {
            std::vector<std::string> names;
            listDir(dir, names);
            for (const std::string& name : names) {
                long long batchFirst = 0, batchLast = 0;
                if (parseBatchName(name, kind, batchFirst, batchLast))
                    fromNames = std::max(fromNames, batchLast);
                else if (name[0] == '.' && endsWith(name, ".tmp") && dir.find("/rotate/") != std::string::npos) {
                    // A batch that was being written when the process died; its
                    // records were never reported as stored and will be read again.
                    MTD_LOG(Notice, "GasFileConnector: unfinished batch [%s%s] removed", dir.c_str(), name.c_str());
                    ::unlink((dir + name).c_str());
                }
            }
        }
        if (last == 0 && fromNames == 0 && check == STATE_OK)
            continue;
        const Key key(sys, type);
        m_last[key] = static_cast<time_t>(std::max(last, fromNames));
        if (fromNames > last)
            MTD_LOG(Notice, "GasFileConnector: %s of system %d recovered from file names: %lld", kind.c_str(), sys,
                    fromNames);
        // A lagging, damaged or older-form state file is written anew, checked.
        if (fromNames > last || check != STATE_OK) {
            m_dirty.insert(key);
            saveState(sys, type);
        }
    }
}

time_t GasFileConnector::GetLastTimestamp(int archType) const {
    time_t newest = 0;
    for (const auto& entry : m_last)
        if (entry.first.second == archType)
            newest = std::max(newest, entry.second);
    return newest;
}

time_t GasFileConnector::GetLastTimestamp(int archType, int sys) const {
    auto it = m_last.find(Key(sys, archType));
    return it == m_last.end() ? 0 : it->second;
}

bool GasFileConnector::StoreRecords(int archType, const std::vector<ArchiveRecord>& records) {
    if (!m_valid)
        return false;
    if (!folderFor(archType)) {
        MTD_LOG(Err, "GasFileConnector::StoreRecords unknown archive kind %d", archType);
        return false;
    }

    // Split by system, keeping the device's order inside each.
    std::map<int, std::vector<const ArchiveRecord*>> bySys;
    for (const ArchiveRecord& r : records) {
        if (r.sys < 0 || r.sys > kMaxSys || r.timestamp <= 0) {
            MTD_LOG(Err, "GasFileConnector::StoreRecords record dropped: sys %d, timestamp %lld", r.sys, r.timestamp);
            continue;
        }
        bySys[r.sys].push_back(&r);
    }

    bool ok = true;
    for (const auto& group : bySys) {
        const int sys = group.first;
        const long long stored = GetLastTimestamp(archType, sys);
        std::vector<std::string> lines;
        std::set<std::string> unique;
        long long first = 0, last = 0;
        size_t dropped = 0;
        for (const ArchiveRecord* r : group.second) {
            std::string line = r->timestamp > stored ? recordLine(m_meterId, archType, *r) : std::string();
            if (line.empty() || !unique.insert(line).second) {
                ++dropped;
                continue;
            }
            first = lines.empty() ? r->timestamp : std::min(first, r->timestamp);
            last = std::max(last, r->timestamp);
            lines.push_back(std::move(line));
        }
        if (dropped)
            MTD_LOG(Debug, "GasFileConnector::StoreRecords %s sys %d: %zu duplicate records dropped",
                    archTypeName(archType), sys, dropped);
        if (lines.empty())
            continue;
        if (!writeBatch(sys, archType, lines, first, last)) {
            ok = false;
            continue;
        }
        const Key key(sys, archType);
        m_last[key] = static_cast<time_t>(last);
        m_dirty.insert(key);
        saveState(sys, archType);
        m_pending = true;
    }
    return ok;
}

bool GasFileConnector::writeBatch(int sys, int archType, const std::vector<std::string>& lines, long long first,
                                  long long last) {
    const std::string dir = sysDir(sys) + "rotate/" + folderFor(archType) + "/";
    if (!makeDirs(dir)) {
        MTD_LOG(Err, "GasFileConnector::StoreRecords cannot create [%s]: %s", dir.c_str(), strerror(errno));
        return false;
    }
    // Sized once: a 15-day hourly batch is some 150 KiB, and growing the text by
    // doubling would briefly hold twice that on a controller with little memory.
    size_t size = 0;
    for (const std::string& line : lines)
        size += line.size();
    std::string content;
    content.reserve(size);
    for (const std::string& line : lines)
        content += line;
    const std::string name =
        std::string(archTypeName(archType)) + "-" + std::to_string(first) + "-" + std::to_string(last) + kBatchSuffix;
    if (!writeFileDurably(dir, name, content))
        return false;
    MTD_LOG(Debug, "GasFileConnector::StoreRecords %zu records stored in [%s]", lines.size(), name.c_str());
    return true;
}

// Temporary file in the same folder, fsync, rename, fsync of the folder: after
// a crash at any point the file is either absent or complete.
bool GasFileConnector::writeFileDurably(const std::string& dir, const std::string& name, const std::string& content) {
    const std::string tmp = dir + "." + name + ".tmp";
    const std::string target = dir + name;
    CUniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd.valid()) {
        MTD_LOG(Err, "GasFileConnector: cannot create [%s]: %s", tmp.c_str(), strerror(errno));
        return false;
    }
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd.get(), content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    bool ok = done == content.size() && syncFile(fd.get(), tmp) == 0;
    ok = fd.close() && ok;
    if (!ok || renameFile(tmp, target) != 0) {
        MTD_LOG(Err, "GasFileConnector: cannot write [%s]: %s", target.c_str(), strerror(errno));
        ::unlink(tmp.c_str());
        return false;
    }
    // Until the folder is synced the new name may vanish in a power cut: the
    // file is not stored. It is taken away again so that the retry, which may
    // bring more records under another name, does not leave two copies.
    if (!syncFolder(dir)) {
        MTD_LOG(Err, "GasFileConnector: cannot sync folder [%s], [%s] not stored: %s", dir.c_str(), name.c_str(),
                strerror(errno));
        ::unlink(target.c_str());
        return false;
    }
    return true;
}

bool GasFileConnector::saveState(int sys, int archType) {
    const Key key(sys, archType);
    if (!m_dirty.count(key))
        return true;
    const std::string dir = sysDir(sys) + "state/";
    if (!makeDirs(dir) ||
        !writeFileDurably(dir, std::string(archTypeName(archType)) + ".last", stateText(m_last[key]))) {
        MTD_LOG(Err, "GasFileConnector: state of %s sys %d not saved, release held back", archTypeName(archType), sys);
        return false;
    }
    m_dirty.erase(key);
    return true;
}

bool GasFileConnector::saveDirtyStates(int sys) {
    bool ok = true;
    for (int type : kArchTypes)
        ok = saveState(sys, type) && ok;
    return ok;
}

bool GasFileConnector::PendingUpdate() {
    return std::exchange(m_pending, false);
}

bool GasFileConnector::ReleaseArchives(int sys, const std::string& folder) {
    return moveIntoReporterFolder(sys, folder, false);
}

bool GasFileConnector::RemoveTmpArchivesSys(int sys, const std::string& folder) {
    return moveIntoReporterFolder(sys, folder, true);
}

// Moves every finished file of rotate/<folder>/ into <folder>/, which the
// reporter reads: wait while the reporter holds its lock, take ours, rename,
// drop ours. Nothing to move means no waiting and no lock.
bool GasFileConnector::moveIntoReporterFolder(int sys, const std::string& folder, bool takeBack) {
    if (!m_valid || sys < 0 || sys > kMaxSys || !isSafeMeterId(folder))
        return false;
    // A released file must never be newer than the state file, or a restart
    // after the reporter took it would read and store its records again.
    if (!saveDirtyStates(sys))
        return false;

    const std::string from = sysDir(sys) + "rotate/" + folder + "/";
    const std::string to = sysDir(sys) + folder + "/";
    std::vector<std::string> entries;
    if (!listDir(from, entries)) {
        if (takeBack) {
            if (errno == ENOENT)
                MTD_LOG(Debug, "CJSONRPCConnector::RemoveTmpArchivesSys directory not open [%s]", from.c_str());
            else
                MTD_LOG(Err, "CJSONRPCConnector::RemoveTmpArchivesSys directory not open [%s]", from.c_str());
            return false;
        }
        if (errno == ENOENT)
            return true;  // nothing was ever stored for this folder
        MTD_LOG(Err, "CJSONRPCConnector::ReleaseArchives directory not open [%s]", from.c_str());
        return false;
    }
    std::vector<std::string> files;
    for (const std::string& name : entries)
        if (name[0] != '.' && isRegularFile(from + name))  // ".*.tmp": a batch being written
            files.push_back(name);
    if (files.empty())
        return true;

    const std::string lock = lockName(sys, folder);
    while (m_control.lockExists(LOCK_REPORTER, lock)) {
        if (takeBack)
            MTD_LOG(Crit, "CJSONRPCConnector::RemoveTmpArchivesSys() data is read, but it is impossible to rewrite it "
                          "in the release folder, the reporter blocked the folder!");
        else
            MTD_LOG(Crit, "CJSONRPCConnector::ReleaseArchives() data is read, but it is impossible to rewrite it in "
                          "the release folder, the reporter blocked the folder!");
        if (!m_waiter)
            std::this_thread::sleep_for(std::chrono::seconds(m_lockWaitSeconds));
        else if (!m_waiter(m_lockWaitSeconds))
            return false;  // stopping: nothing moved, no lock taken
    }

    DriverLockGuard guard(m_control, lock);
    if (!makeDirs(to)) {
        MTD_LOG(Err, "GasFileConnector: cannot create [%s]: %s", to.c_str(), strerror(errno));
        return false;
    }
    bool ok = true;
    for (const std::string& name : files) {
        if (renameNoReplace(from + name, to + name) != 0) {
            MTD_LOG(Err, "GasFileConnector: [%s] not moved to [%s]: %s", name.c_str(), to.c_str(), strerror(errno));
            ok = false;
        }
    }
    // Unsynced, a move may be undone by a power cut: the file is then back in
    // rotate/ and released again, never lost.
    if (!syncFolder(to) || !syncFolder(from)) {
        MTD_LOG(Err, "GasFileConnector: cannot sync folders of [%s]", to.c_str());
        ok = false;
    }
    return ok;
}
