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
    EXPECT_EQ("3600\n", readFile(root.path + "7/1/state/Hourly_JSONRPC.last"));
    EXPECT_FALSE(store.ReleaseArchives(1, "tmp_archives"));
    EXPECT_TRUE(listDir(released(1, "tmp_archives")).empty());

    GasFileConnector again("7", root.path, ctl.path);
    EXPECT_EQ(10800, again.GetLastTimestamp(ARCH_HOURLY));
    EXPECT_EQ("10800\n", readFile(root.path + "7/1/state/Hourly_JSONRPC.last"));
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

}  // namespace
