// SPDX-License-Identifier: Apache-2.0
// mtd_main: serves the meters whose identifiers are given with -i. Fetches each
// meter's configuration from the host service, builds its driver and hands out
// polling turns on the one shared serial line until it is told to stop.
//
// Test hooks: MTD_HOST_URL, MTD_SENSORS_URL, MTD_STORAGE_ROOT, MTD_CONTROL_DIR
// and MTD_LED_DIR replace the fixed places of shell/Defaults.h when set.
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "framework/CMtdBaseDriver.h"
#include "hostlink/CJSONRPCConnector.h"
#include "core/Defaults.h"
#include "core/logger.h"
#include "app/CCommandLine.h"
#include "app/CMtdMainLoop.h"
#include "app/CSignalWatcher.h"
#include "transport/CConnector.h"

namespace {

std::string fromEnv(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::string(value) : std::string(fallback);
}

unsigned long interruptedPc(const siginfo_t* info, void* context) {
    const ucontext_t* uc = static_cast<const ucontext_t*>(context);
    (void)info;
#if defined(__x86_64__)
    return uc ? static_cast<unsigned long>(uc->uc_mcontext.gregs[REG_RIP]) : 0;
#elif defined(__aarch64__)
    return uc ? static_cast<unsigned long>(uc->uc_mcontext.pc) : 0;
#elif defined(__arm__)
    return uc ? static_cast<unsigned long>(uc->uc_mcontext.arm_pc) : 0;
#else
    (void)uc;
    return reinterpret_cast<unsigned long>(info->si_addr);
#endif
}

// The process is already lost here; the backtrace in the log is what lets
// someone find out why, so this handler logs although that is not signal-safe.
void onSegv(int signo, siginfo_t* info, void* context) {
    if (g_logger) {
        MTD_LOG(Crit, "\x1b[1;31m------------------------------------------------------------\x1b[0m");
        MTD_LOG(Crit, "\x1b[1;31mSystem signal number %d (%s) is received from address %lx.\x1b[0m", signo,
                strsignal(signo), interruptedPc(info, context));
        MTD_LOG(Crit, "\x1b[1;31mApplication done due to SIGSEGV.\x1b[0m");
        MTD_LOG(Crit, "\x1b[1;31mbacktrace:\x1b[0m");
        void* frames[100];
        const int count = backtrace(frames, 100);
        if (char** symbols = backtrace_symbols(frames, count)) {
            for (int i = 1; i < count; ++i)  // frame 0 is this handler
                MTD_LOG(Crit, "\x1b[1;31m%s\x1b[0m", symbols[i]);
        }
        MTD_LOG(Crit, "\x1b[1;31m------------------------------------------------------------\x1b[0m");
    }
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
}

// Returns only in the child; the parent exits 0.
void becomeDaemon() {
    if (getpid() != 1) {
        signal(SIGTTOU, SIG_IGN);
        signal(SIGTTIN, SIG_IGN);
        signal(SIGTSTP, SIG_IGN);
    }
    const pid_t pid = fork();
    if (pid < 0) {
        std::fprintf(stderr, "%s\n", "\nCan't fork for daemon mode.\n");
        std::exit(-1);
    }
    if (pid > 0)
        std::exit(0);
    umask(0);
    if (setsid() < 0)
        std::exit(-1);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        std::exit(-1);
    const rlim_t last = limit.rlim_cur == RLIM_INFINITY ? 1024 : limit.rlim_cur;
    // One call instead of a loop that can run to a million on some controllers.
    if (last == 0 || close_range(0, static_cast<unsigned>(last - 1), 0) != 0) {
        for (rlim_t fd = 0; fd < last; ++fd)
            close(static_cast<int>(fd));
    }
    // Descriptors 0, 1 and 2 on /dev/null; they must survive exec, so no O_CLOEXEC.
    if (open("/dev/null", O_RDWR) != 0 || dup(0) != 1 || dup(0) != 2)
        std::exit(-1);
}

}  // namespace

int main(int argc, char** argv) {
    CCommandLine options;
    const int status = options.parse(argc, argv);
    if (status >= 0)
        return status;

    if (options.daemonMode)
        becomeDaemon();

    logger* log = options.logName.empty() ? logger::instance("mtd_main", true)
                                          : logger::instance(options.logName.c_str(), false);
    log->setLevel(static_cast<int>(options.logLevel));
    log->setStderr(options.toStderr);
    log->setMaxSize(options.maxLogSize);

    // backtrace() loads its unwinder on first use; do that now, not inside the handler.
    void* warmUp[1];
    backtrace(warmUp, 1);
    struct sigaction action {};
    action.sa_sigaction = onSegv;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
    // SIGINT, SIGQUIT and SIGTERM: blocked here, before any other thread exists.
    CSignalWatcher signals;

    const std::string hostUrl = fromEnv("MTD_HOST_URL", mtd::defaults::kHostUrl);
    const std::string sensorsUrl = fromEnv("MTD_SENSORS_URL", mtd::defaults::kSensorsUrl);
    DriverPaths paths;
    paths.storageRoot = fromEnv("MTD_STORAGE_ROOT", mtd::defaults::kStorageRoot);
    paths.controlDir = fromEnv("MTD_CONTROL_DIR", mtd::defaults::kControlDir);
    LedPaths leds;
    if (const char* ledDir = std::getenv("MTD_LED_DIR")) {
        leds.transmit = std::string(ledDir) + "/kr_red";
        leds.receive = std::string(ledDir) + "/lan";
    }

    // Declared in this order so that the drivers go first, then the host links
    // they use, then the connector they share.
    std::unique_ptr<CConnector> connector;
    std::vector<std::unique_ptr<CJSONRPCConnector>> links;
    std::vector<std::unique_ptr<CMtdBaseDriver>> drivers;

    for (const std::string& id : options.ids) {
        if (signals.stopRequested())
            break;
        auto rpc = std::make_unique<CJSONRPCConnector>(id, hostUrl, sensorsUrl);
        rpc->setCancelFlag(&signals.stopFlag());
        CDeviceConfig config;
        if (!rpc->GetInitParameters1(config)) {
            MTD_LOG(Err, "main: no configuration for ID '%s', the meter is not served", id.c_str());
            continue;
        }
        if (!connector)
            connector = std::make_unique<CConnector>(config.params, leds);
        drivers.push_back(CMtdBaseDriver::create_and_init(config, connector.get(), rpc.get(), paths));
        links.push_back(std::move(rpc));
    }

    CMtdMainLoop loop(drivers, signals);
    loop.run();
    loop.stopDrivers();
    links.clear();
    connector.reset();
    MTD_LOG(Info, "main: stopped.");
    return 0;
}
