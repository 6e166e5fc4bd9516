// SPDX-License-Identifier: Apache-2.0
#include "storage/CControlFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <tuple>

#include "core/logger.h"
#include "core/CUniqueFd.h"

namespace {

// Longest identifier accepted; keeps "/tmp/gmd_set_value_<id>" well under 256 bytes.
constexpr size_t kMaxMeterIdLength = 128;

// Passport values the gas drivers know how to write into a meter. Anything else
// in the file is most likely an operator's typo ("PassC02"): the whole file is
// refused rather than applying the names that happen to be right.
const char* const kPassportNames[] = {"PassCO", "PassCO2", "PassH2", "PassN2",
                                      "PassS",  "PassP",   "PassT",  "PassDateTime"};
constexpr size_t kMaxPassportValueLength = 64;

// The untrusted files already reported, by path, with what made them so: the
// pause and force-update files are looked at every few seconds, and a file
// left in place must not write a line each time. A changed file is reported
// again. Shared by every CControlFiles of the process (they are short-lived).
class UntrustedReports {
public:
    // True when this state of `path` has not been reported yet.
    bool firstReport(const std::string& path, const struct stat& st) {
        const Seen seen{st.st_dev, st.st_ino, st.st_uid, st.st_gid, st.st_mode};
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_seen.find(path);
        if (it != m_seen.end() && it->second == seen)
            return false;
        if (m_seen.size() >= kMaxPaths)
            m_seen.clear();  // bounded: a flood of names only costs repeated lines
        m_seen[path] = seen;
        return true;
    }
    void forget(const std::string& path) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.erase(path);
    }

private:
    using Seen = std::tuple<dev_t, ino_t, uid_t, gid_t, mode_t>;
    static constexpr size_t kMaxPaths = 256;
    std::mutex m_mutex;
    std::map<std::string, Seen> m_seen;
};

UntrustedReports& untrustedReports() {
    static UntrustedReports reports;
    return reports;
}

bool isKnownPassportName(const std::string& name) {
    for (const char* known : kPassportNames)
        if (name == known)
            return true;
    return false;
}

bool isPrintableText(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f)
            return false;
    return true;
}

}  // namespace

bool isSafeMeterId(const std::string& meterId) {
    if (meterId.empty() || meterId == "." || meterId == ".." || meterId.size() > kMaxMeterIdLength)
        return false;
    for (unsigned char c : meterId)
        if (c == '/' || c < 0x20 || c == 0x7f)
            return false;
    return true;
}

ControlFileOwners ControlFileOwners::ofProcess() {
    ControlFileOwners owners;
    owners.user = ::geteuid();
    owners.group = ::getegid();
    owners.hasGroup = owners.group != 0;
    return owners;
}

bool ControlFileOwners::trusts(const struct stat& st) const {
    if (!S_ISREG(st.st_mode) || (st.st_mode & S_IWOTH))
        return false;
    return st.st_uid == 0 || st.st_uid == user || (hasGroup && st.st_gid == group);
}

CControlFiles::CControlFiles(std::string controlDir, ControlFileOwners owners)
    : m_dir(std::move(controlDir)), m_owners(owners) {
    if (!m_dir.empty() && m_dir.back() != '/')
        m_dir += '/';
}

bool CControlFiles::trustedDescriptor(int fd, const std::string& path, struct stat& st) const {
    if (::fstat(fd, &st) != 0) {
        MTD_LOG(Warning, "%s: control file ignored, fstat failed: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (m_owners.trusts(st)) {
        untrustedReports().forget(path);
        return true;
    }
    // The name comes first: lines are cut at 127 characters.
    if (untrustedReports().firstReport(path, st))
        MTD_LOG(Warning, "%s: untrusted control file ignored, owner %u:%u mode %06o", path.c_str(),
                static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_gid),
                static_cast<unsigned>(st.st_mode));
    return false;
}

bool CControlFiles::trustedExists(const std::string& path) const {
    // O_PATH opens nothing for reading (no side effect, even on a FIFO or a
    // device) and with O_NOFOLLOW yields the symlink itself, which fstat then
    // shows as not a regular file.
    CUniqueFd fd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ENOENT)
            untrustedReports().forget(path);
        return false;
    }
    struct stat st;
    return trustedDescriptor(fd.get(), path, st);
}

std::string CControlFiles::lockPath(int kind, const std::string& name) const {
    // Any kind other than driver or reporter gets no prefix at all: other
    // programs rely on that to test plain flag files with the same calls.
    const char* prefix = kind == LOCK_DRIVER ? "DRV_LCK_" : kind == LOCK_REPORTER ? "RPRT_LCK_" : "";
    return m_dir + prefix + name;
}

void CControlFiles::createLock(int kind, const std::string& name) const {
    // O_NOFOLLOW: nobody may plant a symlink in /tmp that makes us create or
    // truncate a file elsewhere. The outcome is deliberately not reported.
    CUniqueFd fd(::open(lockPath(kind, name).c_str(), O_CREAT | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0644));
}

bool CControlFiles::lockExists(int kind, const std::string& name) const {
    return trustedExists(lockPath(kind, name));
}

void CControlFiles::removeLock(int kind, const std::string& name) const {
    std::remove(lockPath(kind, name).c_str());
}

bool CControlFiles::pauseActive(const std::string& meterId) const {
    if (trustedExists(m_dir + "pause_gmd_all") || trustedExists(m_dir + "pause_gmd"))
        return true;
    return isSafeMeterId(meterId) && trustedExists(m_dir + "pause_gmd_" + meterId);
}

bool CControlFiles::forceUpdateRequested(const std::string& meterId) const {
    return isSafeMeterId(meterId) && trustedExists(m_dir + "gmd_force_update_" + meterId);
}

bool CControlFiles::takeForceUpdate(const std::string& meterId) const {
    if (!isSafeMeterId(meterId))
        return false;
    // Only a trusted file is taken (and removed): in the sticky "/tmp/" nobody
    // else can swap a root-owned file between the look and the unlink.
    const std::string path = m_dir + "gmd_force_update_" + meterId;
    return trustedExists(path) && ::unlink(path.c_str()) == 0;
}

std::string CControlFiles::passportPath(const std::string& meterId) const {
    if (!isSafeMeterId(meterId))
        return std::string();
    return m_dir + "gmd_set_value_" + meterId;
}

CControlFiles::PassportResult CControlFiles::readPassport(const std::string& meterId,
                                                          std::map<std::string, std::string>& values) const {
    values.clear();
    const std::string path = passportPath(meterId);
    if (path.empty()) {
        MTD_LOG(Err, "CControlFiles::readPassport refused unsafe meter identifier");
        return PASSPORT_REFUSED;
    }

    auto refuse = [&path](const char* why) {
        MTD_LOG(Err, "CControlFiles::readPassport passport file refused (%s), removing [%s]", why, path.c_str());
        ::unlink(path.c_str());
        return PASSPORT_REFUSED;
    };

    // O_NONBLOCK: a FIFO planted under the name must not block the polling thread in open().
    // The owner and mode are judged on the descriptor that is read. A symlink
    // is judged as itself (O_PATH), then left alone like any untrusted file.
    CUniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        if (errno == ENOENT)
            return PASSPORT_NONE;
        if (errno == ELOOP) {
            trustedExists(path);
            return PASSPORT_REFUSED;
        }
        MTD_LOG(Err, "CControlFiles::readPassport passport file not readable [%s]: %s", path.c_str(),
                strerror(errno));
        return PASSPORT_REFUSED;
    }
    struct stat st;
    if (!trustedDescriptor(fd.get(), path, st))
        return PASSPORT_REFUSED;  // an untrusted file stays where it is, unread
    if (st.st_size > kMaxPassportBytes)
        return refuse("too large");

    // Read one byte past the limit so that a file that grew after fstat is caught too.
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return refuse("read error");
        if (n == 0)
            break;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > static_cast<size_t>(kMaxPassportBytes))
            return refuse("too large");
    }

    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["rejectDupKeys"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    // jsoncpp throws rather than failing on some texts (nesting past its stack limit).
    bool parsed = false;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    } catch (const std::exception&) {
        parsed = false;
    }
    if (!parsed || !root.isObject())
        return refuse("not a JSON object");

    std::map<std::string, std::string> accepted;
    for (auto it = root.begin(); it != root.end(); ++it) {
        const std::string name = it.name();
        if (!isKnownPassportName(name))
            return refuse("unknown passport name");
        if (!it->isString())
            return refuse("value is not text");
        std::string value = it->asString();
        if (value.empty() || value.size() > kMaxPassportValueLength || !isPrintableText(value))
            return refuse("bad value text");
        accepted.emplace(name, std::move(value));
    }
    values = std::move(accepted);
    return PASSPORT_OK;
}
