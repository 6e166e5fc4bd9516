// SPDX-License-Identifier: Apache-2.0
#include "storage/GasFileConnector.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <thread>

#include "StorageTestUtil.h"

using namespace storage_test;

namespace {

const char* const kCrit = "CJSONRPCConnector::ReleaseArchives() data is read, but it is impossible to rewrite it";

ArchiveRecord rec(long long ts, int sys = 1, std::string vb = "1.0") {
    ArchiveRecord r;
    r.sys = sys;
    r.timestamp = ts;
    r.fields = {{"Vb", std::move(vb)}, {"Vm", "2"}, {"Ab", "3"}};
    return r;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string l; std::getline(ss, l);)
        out.push_back(l);
    return out;
}

// Fails every commit rename whose target matches `pattern`, as a crash or a
// full disk at that step would.
class FailingStore : public GasFileConnector {
public:
    using GasFileConnector::GasFileConnector;
    std::string failPattern;

protected:
    int renameFile(const std::string& from, const std::string& to) override {
        if (!failPattern.empty() && to.find(failPattern) != std::string::npos) {
            errno = EIO;
            return -1;
        }
        return GasFileConnector::renameFile(from, to);
    }
};

// Fails every fsync whose file or folder path ends with `failSuffix`, as a
// storage card that cannot write back would; notes every folder synced.
class SyncFailingStore : public GasFileConnector {
public:
    using GasFileConnector::GasFileConnector;
    std::string failSuffix;
    std::vector<std::string> syncedFolders;

protected:
    int syncFile(int fd, const std::string& path) override {
        if (!path.empty() && path.back() == '/')
            syncedFolders.push_back(path);
        if (!failSuffix.empty() && endsWith(path, failSuffix)) {
            errno = EIO;
            return -1;
        }
        return GasFileConnector::syncFile(fd, path);
    }
    static bool endsWith(const std::string& s, const std::string& tail) {
        return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
    }
};

class Store : public ::testing::Test {
protected:
    TempDir root, ctl;
    LogCapture log{ctl.path + "log"};
    std::string staging(int sys, const char* folder) { return root.path + "7/" + std::to_string(sys) + "/rotate/" + folder + "/"; }
    std::string released(int sys, const char* folder) { return root.path + "7/" + std::to_string(sys) + "/" + folder + "/"; }
};

TEST_F(Store, LineFormatKeepsColumnOrderAndEscapes) {
    GasFileConnector store("7", root.path, ctl.path);
    ArchiveRecord r = rec(1700000000, 2);
    r.fields = {{"Vb", "1\"2"}, {"Ab", std::string("\xC4\x80z\xFF")}, {"Ab", "dup"}, {"T", "-3.5"}};
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {r}));

    auto files = listDir(staging(2, "tmp_archives"));
    ASSERT_EQ(std::vector<std::string>{"Hourly_JSONRPC-1700000000-1700000000.jsonl"}, files);
    std::string line = readFile(staging(2, "tmp_archives") + files[0]);
    EXPECT_EQ("{\"meter\":\"7\",\"sys\":2,\"archive\":\"Hourly_JSONRPC\",\"timestamp\":1700000000,"
              "\"time\":\"2023-11-14T22:13:20Z\",\"fields\":{\"Vb\":\"1\\\"2\",\"Ab\":\"\xC4\x80z\\u00ff\","
              "\"T\":\"-3.5\"}}\n",
              line);
    Json::Value v;
    ASSERT_TRUE(Json::Reader().parse(line, v));
    EXPECT_EQ("1\"2", v["fields"]["Vb"].asString());
    EXPECT_EQ(1700000000, store.GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ(0, store.GetLastTimestamp(ARCH_DAILY));
    EXPECT_TRUE(store.PendingUpdate());
    EXPECT_FALSE(store.PendingUpdate());
}

TEST_F(Store, DuplicatesDroppedPerKindAndSystem) {
    GasFileConnector store("7", root.path, ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(3600), rec(7200), rec(7200), rec(3600, 3)}));
    // Re-read overlap: only the new hour of system 1 and nothing of system 3 is written.
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(3600), rec(7200), rec(10800), rec(3600, 3)}));
    // Two different journal entries of the same second are both kept.
    ASSERT_TRUE(store.StoreRecords(ARCH_JOURNAL_EVENT, {rec(500, 1, "a"), rec(500, 1, "b"), rec(500, 1, "b")}));
    // Bad system numbers and times are dropped with a log line, the rest stored.
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400, -1), rec(0), rec(86400, 1)}));
    EXPECT_FALSE(store.StoreRecords(42, {rec(1)}));

    auto files = listDir(staging(1, "tmp_archives"));
    ASSERT_EQ((std::vector<std::string>{"Daily_JSONRPC-86400-86400.jsonl", "Hourly_JSONRPC-10800-10800.jsonl",
                                        "Hourly_JSONRPC-3600-7200.jsonl"}),
              files);
    EXPECT_EQ(2u, lines(readFile(staging(1, "tmp_archives") + files[2])).size());
    EXPECT_EQ(1u, listDir(staging(3, "tmp_archives")).size());
    auto journal = listDir(staging(1, "tc_tmp_archives"));
    ASSERT_EQ(1u, journal.size());
    EXPECT_EQ(2u, lines(readFile(staging(1, "tc_tmp_archives") + journal[0])).size());
    EXPECT_EQ(10800, store.GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ(3600, store.GetLastTimestamp(ARCH_HOURLY, 3));
    EXPECT_EQ(500, store.GetLastTimestamp(ARCH_JOURNAL_EVENT));
}

TEST_F(Store, InterruptedBatchLeavesNothingAndIsWrittenOnRetry) {
    FailingStore store("7", root.path, ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400)}));
    store.failPattern = "Daily_JSONRPC-172800";
    EXPECT_FALSE(store.StoreRecords(ARCH_DAILY, {rec(172800), rec(259200)}));
    EXPECT_EQ((std::vector<std::string>{"Daily_JSONRPC-86400-86400.jsonl"}), listDir(staging(1, "tmp_archives")));
    EXPECT_EQ(86400, store.GetLastTimestamp(ARCH_DAILY));
    EXPECT_EQ(86400, GasFileConnector("7", root.path, ctl.path).GetLastTimestamp(ARCH_DAILY));

    store.failPattern.clear();
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400), rec(172800), rec(259200)}));
    EXPECT_EQ(2u, lines(readFile(staging(1, "tmp_archives") + "Daily_JSONRPC-172800-259200.jsonl")).size());
    EXPECT_EQ(259200, store.GetLastTimestamp(ARCH_DAILY));
}

TEST_F(Store, LastTimestampsSurviveRestartAndReporterTakingFiles) {
    {
        GasFileConnector store("7", root.path, ctl.path);
        ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(3600), rec(3600, 2), rec(7200, 2)}));
        ASSERT_TRUE(store.StoreRecords(ARCH_JOURNAL_INTERVENT, {rec(99)}));
        ASSERT_TRUE(store.ReleaseArchives(1, "tmp_archives"));
        ASSERT_TRUE(store.ReleaseArchives(2, "tmp_archives"));
    }
    // The reporter takes everything it was given.
    std::system(("rm -f " + released(1, "tmp_archives") + "* " + released(2, "tmp_archives") + "*").c_str());
    // A leftover of a batch being written when the process died.
    writeFile(staging(1, "tc_tmp_archives") + ".Journal_Intervent_JSONRPC-100-200.jsonl.tmp", "{\"half");

    // And the driver lock of a run killed in the middle of a release.
    CControlFiles cf(ctl.path);
    cf.createLock(LOCK_DRIVER, "7_2_tmp_archives");

    GasFileConnector again("7", root.path, ctl.path);
    EXPECT_FALSE(cf.lockExists(LOCK_DRIVER, "7_2_tmp_archives"));
    EXPECT_EQ(7200, again.GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ(3600, again.GetLastTimestamp(ARCH_HOURLY, 1));
    EXPECT_EQ(99, again.GetLastTimestamp(ARCH_JOURNAL_INTERVENT));
    EXPECT_EQ(0, again.GetLastTimestamp(ARCH_DAILY));
    EXPECT_EQ((std::vector<std::string>{"Journal_Intervent_JSONRPC-99-99.jsonl"}),
              listDir(staging(1, "tc_tmp_archives")));
    ASSERT_TRUE(again.StoreRecords(ARCH_HOURLY, {rec(3600, 2), rec(7200, 2)}));
    EXPECT_TRUE(listDir(staging(2, "tmp_archives")).empty());
}

// A crash after a batch's rename but before the state file's: the batch name wins,
// and nothing is released while the state lags behind.
TEST_F(Store, StateRecoveredFromBatchNamesAfterLostStateWrite) {
    FailingStore store("7", root.path, ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(3600)}));
    store.failPattern = ".last";
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(7200), rec(10800)}));
    EXPECT_EQ("3600 1aa3172e\n", readFile(root.path + "7/1/state/Hourly_JSONRPC.last"));
    EXPECT_FALSE(store.ReleaseArchives(1, "tmp_archives"));
    EXPECT_TRUE(listDir(released(1, "tmp_archives")).empty());

    GasFileConnector again("7", root.path, ctl.path);
    EXPECT_EQ(10800, again.GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ("10800 79af2cfd\n", readFile(root.path + "7/1/state/Hourly_JSONRPC.last"));
    EXPECT_TRUE(again.ReleaseArchives(1, "tmp_archives"));
    EXPECT_EQ(2u, listDir(released(1, "tmp_archives")).size());
}

TEST_F(Store, ReleaseWithoutReporterLockLeavesNoDriverLock) {
    GasFileConnector store("7", root.path, ctl.path);
    CControlFiles cf(ctl.path);
    EXPECT_TRUE(store.ReleaseArchives(1, "tmp_archives"));  // nothing stored yet
    ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(3600)}));
    ASSERT_TRUE(store.StoreRecords(ARCH_JOURNAL_EVENT, {rec(3600)}));
    EXPECT_TRUE(store.ReleaseArchives(1, "tmp_archives"));
    EXPECT_TRUE(store.ReleaseArchives(1, "tc_tmp_archives"));
    EXPECT_EQ((std::vector<std::string>{"Hourly_JSONRPC-3600-3600.jsonl"}), listDir(released(1, "tmp_archives")));
    EXPECT_EQ(1u, listDir(released(1, "tc_tmp_archives")).size());
    EXPECT_TRUE(listDir(staging(1, "tmp_archives")).empty());
    EXPECT_FALSE(cf.lockExists(LOCK_DRIVER, store.lockName(1, "tmp_archives")));
    EXPECT_EQ("7_1_tmp_archives", store.lockName(1, "tmp_archives"));
    EXPECT_EQ(0, log.count(logger::CRIT, ""));
}

TEST_F(Store, ReporterLockDelaysReleaseUntilRemoved) {
    GasFileConnector store("7", root.path, ctl.path);
    store.setLockWaitSeconds(1);
    CControlFiles cf(ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400)}));
    const std::string lock = store.lockName(1, "tmp_archives");
    cf.createLock(LOCK_REPORTER, lock);

    std::atomic<bool> driverLockSeen{false};
    std::thread reporter([&] {
        EXPECT_TRUE(log.waitFor(logger::CRIT, kCrit));
        // While we hold ours, the driver has not started moving.
        driverLockSeen = cf.lockExists(LOCK_DRIVER, lock);
        cf.removeLock(LOCK_REPORTER, lock);
    });
    EXPECT_TRUE(store.ReleaseArchives(1, "tmp_archives"));
    reporter.join();
    EXPECT_FALSE(driverLockSeen);
    EXPECT_GE(log.count(logger::CRIT, kCrit), 1);
    EXPECT_EQ(1u, listDir(released(1, "tmp_archives")).size());
    EXPECT_FALSE(cf.lockExists(LOCK_DRIVER, lock));
}

TEST_F(Store, ReleaseGivesUpWhenTheWaiterSaysSo) {
    GasFileConnector store("7", root.path, ctl.path);
    CControlFiles cf(ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400)}));
    cf.createLock(LOCK_REPORTER, store.lockName(1, "tmp_archives"));
    int waits = 0;
    store.setLockWaiter([&](unsigned seconds) {
        EXPECT_EQ(60u, seconds);
        return ++waits < 3;
    });
    EXPECT_FALSE(store.ReleaseArchives(1, "tmp_archives"));
    EXPECT_EQ(3, waits);
    EXPECT_EQ(3, log.count(logger::CRIT, kCrit));
    EXPECT_EQ(1u, listDir(staging(1, "tmp_archives")).size());
    EXPECT_FALSE(cf.lockExists(LOCK_DRIVER, store.lockName(1, "tmp_archives")));
}

TEST_F(Store, TakeBackMovesLeftoversAndReportsMissingFolder) {
    GasFileConnector store("7", root.path, ctl.path);
    EXPECT_FALSE(store.RemoveTmpArchivesSys(4, "tc_archives"));
    EXPECT_EQ(1, log.count(logger::DEBUG, "CJSONRPCConnector::RemoveTmpArchivesSys directory not open [" +
                                              staging(4, "tc_archives")));
    ::mkdir((root.path + "7").c_str(), 0755);
    ::mkdir((root.path + "7/4").c_str(), 0755);
    ::mkdir((root.path + "7/4/rotate").c_str(), 0755);
    ::mkdir(staging(4, "tc_archives").c_str(), 0755);
    writeFile(staging(4, "tc_archives") + "a.jsonl", "x\n");
    writeFile(staging(4, "tc_archives") + ".b.tmp", "half");
    EXPECT_TRUE(store.RemoveTmpArchivesSys(4, "tc_archives"));
    EXPECT_EQ(std::vector<std::string>{"a.jsonl"}, listDir(released(4, "tc_archives")));
    EXPECT_EQ(std::vector<std::string>{".b.tmp"}, listDir(staging(4, "tc_archives")));
}

TEST_F(Store, UnsafeMeterIdStoresNothing) {
    GasFileConnector store("..", root.path, ctl.path);
    EXPECT_FALSE(store.StoreRecords(ARCH_HOURLY, {rec(3600)}));
    EXPECT_FALSE(store.ReleaseArchives(1, "tmp_archives"));
    EXPECT_TRUE(listDir(root.path).empty());
}

// A failed fsync of the batch, of its folder or of a new folder's parent is a
// failed store: nothing visible, the stored time unchanged (so the reader's
// window is read again), before and after a restart; healed, the retry stores.
TEST_F(Store, FailedSyncIsAFailedStore) {
    const std::string sys1 = root.path + "7/1/";
    struct {
        const char* legend;
        std::string failSuffix;
    } rows[] = {
        {"new folder not synced in its parent", "7/1/"},
        {"batch file", ".jsonl.tmp"},
        {"batch folder", "rotate/tmp_archives/"},
    };
    long long t = 3600;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.legend);
        std::system(("rm -rf '" + root.path + "7'").c_str());
        SyncFailingStore store("7", root.path, ctl.path);
        store.failSuffix = row.failSuffix;
        t += 3600;
        EXPECT_FALSE(store.StoreRecords(ARCH_HOURLY, {rec(t), rec(t + 3600)}));
        EXPECT_EQ(0, store.GetLastTimestamp(ARCH_HOURLY));
        EXPECT_TRUE(listDir(staging(1, "tmp_archives")).empty());
        EXPECT_EQ(0, GasFileConnector("7", root.path, ctl.path).GetLastTimestamp(ARCH_HOURLY));
        EXPECT_GE(log.count(logger::ERR, "GasFileConnector: cannot sync folder ") +
                      log.count(logger::ERR, "GasFileConnector: cannot write "),
                  1);

        store.failSuffix.clear();
        store.syncedFolders.clear();
        ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(t), rec(t + 3600)}));
        EXPECT_EQ(t + 3600, store.GetLastTimestamp(ARCH_HOURLY));
        EXPECT_EQ(1u, listDir(staging(1, "tmp_archives")).size());
        // The folder made by the failed attempt is synced in its parent now.
        if (row.failSuffix == "7/1/") {
            EXPECT_NE(store.syncedFolders.end(), std::find(store.syncedFolders.begin(), store.syncedFolders.end(), sys1));
        }
    }

    // Every folder made for a batch is synced in its parent.
    std::system(("rm -rf '" + root.path + "7'").c_str());
    SyncFailingStore store("7", root.path, ctl.path);
    ASSERT_TRUE(store.StoreRecords(ARCH_DAILY, {rec(86400)}));
    for (const std::string& parent : {root.path, root.path + "7/", sys1, sys1 + "rotate/"})
        EXPECT_NE(store.syncedFolders.end(),
                  std::find(store.syncedFolders.begin(), store.syncedFolders.end(), parent))
            << parent;
}

TEST(StoreState, CheckedLineReadStrictly) {
    const std::string good = GasFileConnector::stateText(1700006400);
    ASSERT_EQ(good.size(), std::string("1700006400 ").size() + 9);
    struct {
        const char* legend;
        std::string text;
        GasFileConnector::StateCheck check;
        long long last;
    } rows[] = {
        {"checked", good, GasFileConnector::STATE_OK, 1700006400},
        {"zero, checked", GasFileConnector::stateText(0), GasFileConnector::STATE_OK, 0},
        {"older form", "1700006400\n", GasFileConnector::STATE_OLD_FORMAT, 1700006400},
        {"older form cut before its newline", "1700006400", GasFileConnector::STATE_BAD, 0},
        {"older form zero", "0\n", GasFileConnector::STATE_BAD, 0},
        {"leading zero", "01700006400\n", GasFileConnector::STATE_BAD, 0},
        {"wrong check", "1700006401" + good.substr(10), GasFileConnector::STATE_BAD, 0},
        {"check in capitals", "1700006400 " + [&] {
             std::string crc = good.substr(11, 8);
             for (char& c : crc)
                 c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
             return crc;
         }() + "\n",
         GasFileConnector::STATE_BAD, 0},
        {"two blanks", "1700006400  " + good.substr(11), GasFileConnector::STATE_BAD, 0},
        {"second line", good + good, GasFileConnector::STATE_BAD, 0},
        {"sign", "-1\n", GasFileConnector::STATE_BAD, 0},
        {"empty", "", GasFileConnector::STATE_BAD, 0},
        {"carriage return", "1700006400\r\n", GasFileConnector::STATE_BAD, 0},
    };
    for (const auto& row : rows) {
        long long last = -1;
        EXPECT_EQ(row.check, GasFileConnector::parseStateText(row.text, last)) << row.legend;
        EXPECT_EQ(row.last, last) << row.legend;
    }
    // Cut at any byte, the checked line is never taken.
    for (size_t cut = 0; cut < good.size(); ++cut) {
        long long last = -1;
        EXPECT_EQ(GasFileConnector::STATE_BAD, GasFileConnector::parseStateText(good.substr(0, cut), last)) << cut;
    }
}

// A state file cut at any byte is rebuilt from the batch files present, with
// an Err line, and written anew; the older form is read and rewritten checked.
TEST_F(Store, DamagedStateFileRebuiltFromBatchFiles) {
    const std::string state = root.path + "7/1/state/Hourly_JSONRPC.last";
    {
        GasFileConnector store("7", root.path, ctl.path);
        ASSERT_TRUE(store.StoreRecords(ARCH_HOURLY, {rec(1700002800), rec(1700006400)}));
        ASSERT_TRUE(store.StoreRecords(ARCH_JOURNAL_EVENT, {rec(1700000001)}));
    }
    const std::string good = readFile(state);
    ASSERT_EQ(GasFileConnector::stateText(1700006400), good);
    for (size_t cut = 0; cut < good.size(); ++cut) {
        SCOPED_TRACE(cut);
        writeFile(state, good.substr(0, cut));
        const int errors = log.count(logger::ERR, "GasFileConnector: state file [" + state + "] fails its check");
        GasFileConnector again("7", root.path, ctl.path);
        EXPECT_EQ(1700006400, again.GetLastTimestamp(ARCH_HOURLY));
        EXPECT_EQ(1700000001, again.GetLastTimestamp(ARCH_JOURNAL_EVENT));
        EXPECT_EQ(errors + 1, log.count(logger::ERR, "GasFileConnector: state file [" + state + "] fails its check"));
        EXPECT_EQ(good, readFile(state));
    }

    // The reporter took the files: with no name left to rebuild from, a
    // damaged file gives no time at all rather than a wrong one.
    {
        GasFileConnector store("7", root.path, ctl.path);
        ASSERT_TRUE(store.ReleaseArchives(1, "tmp_archives"));
    }
    std::system(("rm -f " + released(1, "tmp_archives") + "*").c_str());
    writeFile(state, good.substr(0, 5));  // "17000": 1970 if taken as it stands
    EXPECT_EQ(0, GasFileConnector("7", root.path, ctl.path).GetLastTimestamp(ARCH_HOURLY));

    // A controller updated from the older form keeps its place.
    writeFile(state, "1700006400\n");
    const int errors = log.count(logger::ERR, "GasFileConnector: state file [");
    EXPECT_EQ(1700006400, GasFileConnector("7", root.path, ctl.path).GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ(errors, log.count(logger::ERR, "GasFileConnector: state file ["));
    EXPECT_EQ(good, readFile(state));
}

}  // namespace
