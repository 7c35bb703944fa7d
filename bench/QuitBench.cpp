// How fast quitting notices that a process has gone, and what the waiting
// costs. Two measurements:
//  1. latency: from the moment a process that exits at once on SIGTERM has
//     exited (it stamps the monotonic clock in its handler) to the return of
//     quitRunningApplicationWithTimeout; repeated, median / p95 / max.
//  2. polling cost: processor time of the calling thread while it waits the
//     whole 4-second terminate phase on a process that ignores SIGTERM,
//     as a share of one core.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "BenchSupport.h"
#include "KVProcess.h"

extern char **environ;

namespace {

// Starts the child and waits for its "ready".
pid_t startChild(bool ignoreTerm, int exitFd) {
    int out[2];
    if (pipe(out) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string fd = std::to_string(exitFd);
    std::vector<char *> argv{const_cast<char *>(QUIT_BENCH_CHILD)};
    if (ignoreTerm) argv.push_back(const_cast<char *>("--ignore-term"));
    argv.push_back(const_cast<char *>("--exit-fd"));
    argv.push_back(fd.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    char buffer[8];
    (void)!read(out[0], buffer, sizeof buffer);
    close(out[0]);
    return pid;
}

void latency(int runs) {
    std::vector<double> delays;
    for (int i = 0; i < runs; ++i) {
        int stamp[2];
        if (pipe(stamp) != 0) return;
        const pid_t pid = startChild(false, stamp[1]);
        close(stamp[1]);
        const KVProcessRef process = KVProcess::processWithPID(pid);
        process->name();
        const bool quit = process->quitRunningApplicationWithTimeout(4.0f);
        const int64_t returned = nanoseconds(CLOCK_MONOTONIC);
        int64_t exited = 0;
        const bool stamped = read(stamp[0], &exited, sizeof exited) == sizeof exited;
        close(stamp[0]);
        waitpid(pid, nullptr, 0);
        if (quit && stamped) delays.push_back(double(returned - exited) / 1e6);
    }
    std::sort(delays.begin(), delays.end());
    if (delays.empty()) return;
    const auto at = [&](double q) { return delays[size_t(q * double(delays.size() - 1))]; };
    std::printf("quit latency after exit over %zu runs: median %.3f ms, p95 %.3f ms, max %.3f ms\n",
                delays.size(), at(0.5), at(0.95), delays.back());
}

void pollingCost() {
    const pid_t pid = startChild(true, -1);
    const KVProcessRef process = KVProcess::processWithPID(pid);
    process->name();
    const int64_t wall0 = nanoseconds(CLOCK_MONOTONIC);
    const int64_t cpu0 = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    process->quitRunningApplicationWithTimeout(4.0f);
    const double cpu = double(nanoseconds(CLOCK_THREAD_CPUTIME_ID) - cpu0) / 1e9;
    const double wall = double(nanoseconds(CLOCK_MONOTONIC) - wall0) / 1e9;
    waitpid(pid, nullptr, 0);
    std::printf("polling cost over %.3f s of waiting: %.3f s of CPU = %.2f%% of one core\n", wall,
                cpu, 100.0 * cpu / wall);
}

}  // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    // The log lines of each quit are not what is measured.
    if (!freopen("/dev/null", "w", stderr)) return 1;
    latency(argc > 1 ? std::atoi(argv[1]) : 50);
    pollingCost();
    return 0;
}
