// SPDX-License-Identifier: Apache-2.0
// mtd_hostsim: the host and sensors services of the controller, for the demo
// and the end-to-end tests. Prints "ready" once both ports listen; stops on
// SIGINT or SIGTERM.

#include <getopt.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tools/hostsim/CHostSim.h"

namespace {

void usage(FILE* out)
{
    std::fprintf(out,
                 "usage: mtd_hostsim [--config FILE] [--record FILE] [--port N] [--sensors-port N]\n"
                 "                   [--bind ADDR] [--garbage N] [--refuse S] [--rpc-error] [--endless N]\n"
                 "  --config FILE       {\"meters\": {\"<id>\": <get_config result>}, \"config2\": <get_config2 result>}\n"
                 "  --record FILE       append every request body as one JSON line\n"
                 "  --port N            host service port (8082; 0 = any free port)\n"
                 "  --sensors-port N    sensors service port (4665; 0 = any free port)\n"
                 "  --bind ADDR         listen address (127.0.0.1)\n"
                 "  --garbage N         answer the first N requests with text that is not JSON\n"
                 "  --refuse S          do not listen during the first S seconds\n"
                 "  --rpc-error         answer every valid request with a JSON-RPC error\n"
                 "  --endless N         answer the first N requests with a body that never ends\n");
}

bool parseInt(const char* text, long low, long high, long& out)
{
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < low || v > high)
        return false;
    out = v;
    return true;
}

// Waits for SIGINT/SIGTERM (blocked in every thread) for at most `seconds`;
// true when a signal came. seconds < 0 waits without limit.
bool waitForStopSignal(const sigset_t& set, long seconds)
{
    if (seconds < 0) {
        int sig = 0;
        while (sigwait(&set, &sig) != 0) {
        }
        return true;
    }
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        timespec left{deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
        if (left.tv_nsec < 0) {
            left.tv_nsec += 1000000000L;
            --left.tv_sec;
        }
        if (left.tv_sec < 0)
            return false;
        if (sigtimedwait(&set, nullptr, &left) >= 0)
            return true;
        if (errno == EAGAIN)
            return false;
        // EINTR: another signal; wait for the rest of the time
    }
}

}  // namespace

int main(int argc, char** argv)
{
    CHostSimOptions options;
    std::string configFile;
    long refuse = 0;

    static const option longOptions[] = {
        {"config", required_argument, nullptr, 'c'},      {"record", required_argument, nullptr, 'r'},
        {"port", required_argument, nullptr, 'p'},        {"sensors-port", required_argument, nullptr, 's'},
        {"bind", required_argument, nullptr, 'b'},        {"garbage", required_argument, nullptr, 'g'},
        {"refuse", required_argument, nullptr, 'f'},      {"rpc-error", no_argument, nullptr, 'e'},
        {"endless", required_argument, nullptr, 'n'},
        {"help", no_argument, nullptr, 'h'},              {nullptr, 0, nullptr, 0},
    };
    int opt;
    while ((opt = getopt_long(argc, argv, "c:r:p:s:b:g:f:n:eh", longOptions, nullptr)) != -1) {
        long v = 0;
        switch (opt) {
        case 'c': configFile = optarg; break;
        case 'r': options.recordFile = optarg; break;
        case 'b': options.bind = optarg; break;
        case 'e': options.rpcError = true; break;
        case 'p':
        case 's':
            if (!parseInt(optarg, 0, 65535, v)) {
                std::fprintf(stderr, "mtd_hostsim: bad port \"%s\"\n", optarg);
                return 2;
            }
            (opt == 'p' ? options.hostPort : options.sensorsPort) = static_cast<int>(v);
            break;
        case 'g':
        case 'f':
        case 'n':
            if (!parseInt(optarg, 0, 1000000, v)) {
                std::fprintf(stderr, "mtd_hostsim: bad count \"%s\"\n", optarg);
                return 2;
            }
            if (opt == 'g')
                options.garbage = static_cast<int>(v);
            else if (opt == 'n')
                options.endless = static_cast<int>(v);
            else
                refuse = v;
            break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (optind != argc) {
        usage(stderr);
        return 2;
    }

    // The stop signals are taken with sigwait in this thread; the server
    // threads inherit the blocked mask and never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    CHostSim sim(options);
    std::string error;
    if (!configFile.empty() && !sim.loadConfigFile(configFile, error)) {
        std::fprintf(stderr, "mtd_hostsim: %s\n", error.c_str());
        return 2;
    }
    if (refuse > 0 && waitForStopSignal(stopSignals, refuse))
        return 0;
    if (!sim.Start(error)) {
        std::fprintf(stderr, "mtd_hostsim: %s\n", error.c_str());
        return 1;
    }
    std::printf("listening host %s sensors %s\n", sim.hostUrl().c_str(), sim.sensorsUrl().c_str());
    std::printf("ready\n");
    std::fflush(stdout);

    waitForStopSignal(stopSignals, -1);
    sim.Stop();
    return 0;
}
