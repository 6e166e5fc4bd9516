// SPDX-License-Identifier: Apache-2.0
// What the archive store reads back at start-up: a state file's content and
// the names of the batch files beside it. The input's first line (with its
// newline) is the state file, each further line a batch file name. Checked
// against the parsers' own promises, and once through the store itself on a
// private folder: the time recovered is the state's (when it passes its check)
// or the newest batch name's, never anything read from a damaged file.

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzLog.h"
#include "storage/GasFileConnector.h"

namespace {

void writeAll(const std::string& path, const std::string& content) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return;  // a name the file system refuses
    for (size_t done = 0; done < content.size();) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n <= 0)
            __builtin_trap();
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzLogAll();
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t eol = input.find('\n');
    const std::string state = eol == std::string::npos ? input : input.substr(0, eol + 1);

    long long last = -1;
    const auto check = GasFileConnector::parseStateText(state, last);
    if (check == GasFileConnector::STATE_OK && GasFileConnector::stateText(last) != state)
        __builtin_trap();
    if (check == GasFileConnector::STATE_OLD_FORMAT && (last <= 0 || std::to_string(last) + "\n" != state))
        __builtin_trap();
    if (check == GasFileConnector::STATE_BAD && last != 0)
        __builtin_trap();

    const std::string kind = "Hourly_JSONRPC";
    std::vector<std::string> names;
    long long newestName = 0;
    for (size_t pos = eol; pos != std::string::npos && pos < input.size();) {
        const size_t next = input.find('\n', pos + 1);
        const std::string name = input.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1);
        pos = next;
        long long first = 0, batchLast = 0;
        if (!GasFileConnector::parseBatchName(name, kind, first, batchLast))
            continue;
        if (first <= 0 || first > batchLast ||
            name != kind + "-" + std::to_string(first) + "-" + std::to_string(batchLast) + ".jsonl")
            __builtin_trap();
        if (names.size() < 8) {
            names.push_back(name);
            newestName = std::max(newestName, batchLast);
        }
    }

    // Once through the store's own recovery on disk.
    // On a RAM file system where there is one: the store syncs what it writes.
    static const std::string root = [] {
        char shm[] = "/dev/shm/mtd_fuzz_store_XXXXXX";
        char tmp[] = "/tmp/mtd_fuzz_store_XXXXXX";
        const char* dir = mkdtemp(shm);
        return std::string(dir ? dir : mkdtemp(tmp)) + "/";
    }();
    const std::string sys = root + "42/1/";
    ::nftw((root + "42").c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    for (const char* dir : {"42", "42/1", "42/1/state", "42/1/rotate", "42/1/rotate/tmp_archives"})
        ::mkdir((root + dir).c_str(), 0700);
    writeAll(sys + "state/Hourly_JSONRPC.last", state);
    for (const std::string& name : names)
        writeAll(sys + "rotate/tmp_archives/" + name, "");
    const GasFileConnector store("42", root, root + "ctl/");
    const long long expected = std::max(check == GasFileConnector::STATE_BAD ? 0 : last, newestName);
    if (store.GetLastTimestamp(ARCH_HOURLY) != expected)
        __builtin_trap();
    return 0;
}
