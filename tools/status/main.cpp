// SPDX-License-Identifier: Apache-2.0
// mtd_status: reads every "mtd_status_<id>.json" that the daemon's polling
// threads keep in the status directory and prints one line per meter: state,
// age of the last good read, how far each archive lags behind now, error
// counts. With --json the same as one JSON document, with --prometheus in the
// Prometheus text format for node_exporter's textfile collector; --output puts
// it into a file, replaced whole so the collector never reads half of it. Exit
// status 1 when a meter has not been read for three data_rate periods (or no
// status can be read), so a cron job or a monitoring agent can alert on it.
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "core/Defaults.h"
#include "core/ReplaceFile.h"
#include "CStatusReport.h"

namespace {

const char* const kUsage =
    "Usage: mtd_status [--dir DIR] [--json | --prometheus] [--output FILE] [--now SECONDS]\n"
    "    --dir DIR      directory of the status files (default /tmp/)\n"
    "    --json         one JSON document instead of the table\n"
    "    --prometheus   Prometheus text format (node_exporter's textfile collector)\n"
    "    --output FILE  replace FILE with the output instead of printing it\n"
    "    --now SECONDS  judge ages against this Unix time instead of the clock\n"
    "Exit status: 0 all meters read recently, 1 a meter not read for three\n"
    "data_rate periods, no readable status or the output not written, 2 bad options.\n";

// The whole file, up to one byte past the limit (so a larger one is seen as
// such). Non-blocking and without following links: a FIFO or a link planted
// under a status file's name must neither hang the tool nor lead it elsewhere.
bool readText(const std::string& path, std::string& text, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    error = ok ? "" : "not a regular file";
    text.clear();
    char buf[65536];
    while (ok && text.size() <= static_cast<size_t>(CStatusReport::kMaxStatusBytes)) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            error = std::strerror(errno);
            ok = false;
        }
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return ok;
}

std::vector<std::string> statusFiles(const std::string& dir, bool& ok) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    ok = d != nullptr;
    if (!d)
        return names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        static const std::string prefix = "mtd_status_", suffix = ".json";
        if (name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = mtd::defaults::kControlDir;
    enum { TABLE, JSON, PROMETHEUS } format = TABLE;
    std::string output;
    long long now = static_cast<long long>(std::time(nullptr));
    static const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"prometheus", no_argument, nullptr, 'p'},
                                      {"output", required_argument, nullptr, 'o'},
                                      {"now", required_argument, nullptr, 'n'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "d:jpo:n:h", kOptions, nullptr)) != -1) {
        switch (opt) {
        case 'd':
            dir = optarg;
            break;
        case 'j':
            format = JSON;
            break;
        case 'p':
            format = PROMETHEUS;
            break;
        case 'o':
            output = optarg;
            if (output.empty() || output.back() == '/') {
                std::fprintf(stderr, "mtd_status: --output wants a file name, got '%s'\n", optarg);
                return 2;
            }
            break;
        case 'n': {
            char* end = nullptr;
            errno = 0;
            now = std::strtoll(optarg, &end, 10);
            if (errno || !end || *end || end == optarg) {
                std::fprintf(stderr, "mtd_status: --now wants Unix seconds, got '%s'\n", optarg);
                return 2;
            }
            break;
        }
        case 'h':
            std::fputs(kUsage, stdout);
            return 0;
        default:
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "mtd_status: unexpected argument '%s'\n", argv[optind]);
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!dir.empty() && dir.back() != '/')
        dir += '/';

    bool dirOk = false;
    CStatusReport report(now);
    int unreadable = 0;
    for (const std::string& name : statusFiles(dir, dirOk)) {
        const std::string file = dir + name;
        std::string text, error;
        if (!readText(file, text, error) || !report.add(file, text, error)) {
            std::fprintf(stderr, "mtd_status: %s: %s\n", file.c_str(), error.c_str());
            ++unreadable;
        }
    }
    if (!dirOk)
        std::fprintf(stderr, "mtd_status: can't read directory '%s': %s\n", dir.c_str(), std::strerror(errno));
    else if (report.empty() && unreadable == 0)
        std::fprintf(stderr, "mtd_status: no status files in '%s'\n", dir.c_str());

    const std::string out = format == PROMETHEUS ? report.prometheus(unreadable)
                            : format == JSON     ? report.json(unreadable)
                                                 : report.table();
    if (output.empty()) {
        std::cout << out;
    } else {
        // 0644: the collector runs as another user.
        const char* step = nullptr;
        if (!mtd::replaceFile(output, out, &step, 0644)) {
            std::fprintf(stderr, "mtd_status: %s of '%s' failed: %s\n", step, output.c_str(), std::strerror(errno));
            return 1;
        }
    }
    return report.stale() > 0 || unreadable > 0 || report.empty() ? 1 : 0;
}
