// SPDX-License-Identifier: Apache-2.0
#include "tools/simline/SimMain.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

std::atomic<int> g_signal{0};
std::atomic<bool> g_usr1{false};

void onSignal(int sig) {
    if (sig == SIGUSR1)
        g_usr1 = true;
    else
        g_signal = sig;
}

}  // namespace

bool simToLong(const char* text, long long& out) {
    char* end = nullptr;
    out = std::strtoll(text, &end, 10);
    return *text != '\0' && *end == '\0';
}

void simCatchSignals() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void simServeUntilSignal(const std::function<std::string()>& summary, const std::function<void()>& beforeLast) {
    while (g_signal.load() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (g_usr1.exchange(false)) {
            std::printf("%s\n", summary().c_str());
            std::fflush(stdout);
        }
    }
    if (beforeLast)
        beforeLast();
    std::printf("%s\n", summary().c_str());
    std::fflush(stdout);
}
