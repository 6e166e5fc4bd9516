// SPDX-License-Identifier: Apache-2.0
#include "core/logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/mtd_logger_XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
};

std::vector<std::string> readLines(const std::string& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Text after "HH:MM:SS.mmm.uuu Sev: "
std::string body(const std::string& line) {
    auto pos = line.find(": ");
    return pos == std::string::npos ? line : line.substr(pos + 2);
}

void writeAll(logger& log) {
    log.Emerg("e");
    log.Alert("a");
    log.Crit("c");
    log.Err("r");
    log.Warning("w");
    log.Notice("n");
    log.Info("i");
    log.Debug("d");
    unsigned char bytes[] = {0x01, 0xAB};
    log.dump("dump", bytes, sizeof bytes);
}

TEST(Logger, LevelFilteringAndPrefix) {
    TempDir dir;
    std::string f0 = dir.path + "/l0.log", f7 = dir.path + "/l7.log";
    logger l0(f0.c_str(), false), l7(f7.c_str(), false);
    l0.setLevel(0);
    l7.setLevel(7);
    writeAll(l0);
    writeAll(l7);

    auto lines0 = readLines(f0);
    ASSERT_EQ(lines0.size(), 1u);
    EXPECT_EQ(lines0[0].substr(16), " Emerg: e");

    auto lines7 = readLines(f7);
    ASSERT_EQ(lines7.size(), 9u);
    const char* names[] = {"Emerg", "Alert", "Crit", "Err", "Warning", "Notice", "Info", "Debug", "Debug"};
    for (size_t i = 0; i < 8; ++i) {
        // "HH:MM:SS.mmm.uuu " is 17 characters
        ASSERT_GT(lines7[i].size(), 17u);
        EXPECT_EQ(lines7[i][2], ':');
        EXPECT_EQ(lines7[i][8], '.');
        EXPECT_EQ(lines7[i][12], '.');
        EXPECT_EQ(lines7[i].substr(17, strlen(names[i])), names[i]);
    }
    EXPECT_EQ(body(lines7[8]), "dump 0x01 0xAB");
    EXPECT_TRUE(l7.isLevel(7));
    EXPECT_FALSE(l0.isLevel(1));
}

TEST(Logger, TruncatesAt127Characters) {
    TempDir dir;
    std::string f = dir.path + "/t.log";
    logger log(f.c_str(), false);
    std::string longText(300, 'x');
    log.Info("%s", longText.c_str());
    auto lines = readLines(f);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(body(lines[0]), std::string(127, 'x'));
}

TEST(Logger, SizeLimitErasesAfterTheCrossingLine) {
    TempDir dir;
    std::string f = dir.path + "/s.log";
    logger log(f.c_str(), false);
    log.setMaxSize(100);
    log.Info("%s", std::string(40, 'a').c_str());  // ~62 bytes with prefix
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    log.Info("%s", std::string(40, 'b').c_str());  // crosses 100: erased
    EXPECT_NE(stat(f.c_str(), &st), 0);
    log.Info("c");
    auto lines = readLines(f);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(body(lines[0]), "c");

    std::string g = dir.path + "/unlimited.log";
    logger unlimited(g.c_str(), false);
    unlimited.setMaxSize(0);
    for (int i = 0; i < 50; ++i)
        unlimited.Info("line %d", i);
    EXPECT_EQ(readLines(g).size(), 50u);
}

TEST(Logger, MissingDirectoryIsReportedAndSurvived) {
    std::string f = "/nonexistent_mtd_dir/x.log";
    logger log(f.c_str(), false);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    log.Info("one");
    log.Info("two");
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "Can't open file " + f + "\nCan't open file " + f + "\n");
    EXPECT_NE(err.find("addError: "), std::string::npos);
}

TEST(Logger, StderrModeAndShellMetacharactersInPath) {
    TempDir dir;
    // A path that a shell would execute must simply be a file name here.
    std::string f = dir.path + "/x;touch " + dir.path + "/pwned";
    logger log(f.c_str(), false);
    log.setMaxSize(1);
    log.Info("erase me");
    struct stat st;
    EXPECT_NE(stat((dir.path + "/pwned").c_str(), &st), 0);
    EXPECT_NE(stat(f.c_str(), &st), 0);

    log.setStderr(true);
    testing::internal::CaptureStderr();
    log.Warning("to stderr %d", 5);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(" Warning: to stderr 5\n"), std::string::npos);
}

TEST(Logger, ConcurrentWritersNeverTearLines) {
    TempDir dir;
    std::string f = dir.path + "/c.log";
    logger log(f.c_str(), false);
    const int perThread = 200;
    auto worker = [&](char c) {
        std::string text(60, c);
        for (int i = 0; i < perThread; ++i)
            log.Info("%s", text.c_str());
    };
    std::thread a(worker, 'a'), b(worker, 'b');
    a.join();
    b.join();
    auto lines = readLines(f);
    ASSERT_EQ(lines.size(), 2u * perThread);
    for (const auto& line : lines) {
        std::string text = body(line);
        ASSERT_TRUE(text == std::string(60, 'a') || text == std::string(60, 'b')) << line;
    }
}

}  // namespace
