// SPDX-License-Identifier: Apache-2.0
#include "storage/GasFileConnector.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "StorageTestUtil.h"

using namespace storage_test;

namespace {

// Child: stores consecutive hours two at a time, releasing every third batch,
// and reports each stored batch's newest time on the pipe. Never returns.
[[noreturn]] void writerProcess(const std::string& root, const std::string& ctl, int ackFd) {
    GasFileConnector store("9", root, ctl);
    long long next = store.GetLastTimestamp(ARCH_HOURLY) + 1;
    for (int batch = 1;; ++batch) {
        std::vector<ArchiveRecord> records(2);
        for (ArchiveRecord& r : records) {
            r.timestamp = next++;
            r.fields = {{"V", std::to_string(r.timestamp)}};
        }
        if (!store.StoreRecords(ARCH_HOURLY, records))
            _exit(2);
        if (batch % 3 == 0 && !store.ReleaseArchives(1, "tmp_archives"))
            _exit(3);
        long long acked = next - 1;
        if (::write(ackFd, &acked, sizeof acked) != static_cast<ssize_t>(sizeof acked))
            _exit(4);
    }
}

// Reads the "timestamp" of every line of every batch file in `dir`.
void collect(const std::string& dir, std::multiset<long long>& out) {
    for (const std::string& name : listDir(dir)) {
        if (name[0] == '.')
            continue;
        std::stringstream ss(readFile(dir + name));
        for (std::string line; std::getline(ss, line);) {
            auto pos = line.find("\"timestamp\":");
            ASSERT_NE(std::string::npos, pos) << name;
            out.insert(std::stoll(line.substr(pos + 12)));
        }
    }
}

// SIGKILL at arbitrary moments of storing and releasing, with a reporter that
// takes released files between runs: no record lost, none stored twice.
TEST(KillRestart, NoRecordLostOrDuplicated) {
    TempDir root, ctl;
    const std::string released = root.path + "9/1/tmp_archives/";
    const std::string staged = root.path + "9/1/rotate/tmp_archives/";
    std::multiset<long long> taken;
    long long lastAcked = 0;
    for (int round = 0; round < 8; ++round) {
        int fds[2];
        ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(fds[0]);
            writerProcess(root.path, ctl.path, fds[1]);
        }
        ::close(fds[1]);
        // Let it get a varying way in, then kill it wherever it is.
        for (int i = 0; i < 5 + 7 * round; ++i)
            ASSERT_EQ(static_cast<ssize_t>(sizeof lastAcked), ::read(fds[0], &lastAcked, sizeof lastAcked));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ::close(fds[0]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer failed with " << WEXITSTATUS(status);
        // The reporter takes what was released.
        collect(released, taken);
        std::system(("rm -f " + released + "*").c_str());
    }
    std::multiset<long long> all = taken;
    collect(staged, all);
    collect(released, all);
    ASSERT_FALSE(all.empty());
    EXPECT_GE(*all.rbegin(), lastAcked);
    long long expected = 1;
    for (long long ts : all)
        ASSERT_EQ(expected++, ts) << "lost or duplicated";
    EXPECT_EQ(*all.rbegin(), GasFileConnector("9", root.path, ctl.path).GetLastTimestamp(ARCH_HOURLY));
}

}  // namespace
