// What running a script through KVUtilities::runShellScript costs: its
// overhead over posix_spawn + waitpid of the same script when the script ends
// at once, and this process's processor time while a script runs for a while
// (the time-out loop polls every millisecond).
//   shell_bench [runs]   (default 201)
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "BenchSupport.h"
#include "KVUtilities.h"

extern char **environ;

namespace {

double milliseconds(int64_t since) { return double(nanoseconds() - since) / 1e6; }

double spawnAndWait(const QByteArray &script) {
    const int64_t start = nanoseconds();
    char *argv[] = {const_cast<char *>(script.constData()), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) == 0) waitpid(pid, nullptr, 0);
    return milliseconds(start);
}

double runShellScript(const QString &script) {
    const int64_t start = nanoseconds();
    KVUtilities::runShellScript(script, std::nullopt, 60);
    return milliseconds(start);
}

// User and system time of this process, all threads, in seconds.
double processorSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool writeScript(const QString &path, const QByteArray &body) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write("#!/bin/sh\n" + body + "\n") > 0 &&
           file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

}  // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 201;
    QTemporaryDir folder;
    const QString quick = folder.path() + "/quick.sh", slow = folder.path() + "/slow.sh";
    if (!folder.isValid() || !writeScript(quick, "exit 0") || !writeScript(slow, "sleep 5")) {
        fprintf(stderr, "cannot write the scripts\n");
        return 1;
    }
    const QByteArray quickPath = QFile::encodeName(quick);
    // Taken in turns, so that a busy moment of the machine weighs on both.
    std::vector<double> plain, ours;
    for (int i = 0; i < runs; ++i) {
        plain.push_back(spawnAndWait(quickPath));
        ours.push_back(runShellScript(quick));
    }
    const double plainMedian = median(plain), ourMedian = median(ours);
    printf(
        "script that ends at once, median of %d: posix_spawn + waitpid %.3f ms, "
        "runShellScript %.3f ms, overhead %.3f ms (goal: under 2 ms)\n",
        runs, plainMedian, ourMedian, ourMedian - plainMedian);

    const double before = processorSeconds();
    const int64_t start = nanoseconds();
    KVUtilities::runShellScript(slow, std::nullopt, 60);
    const double seconds = milliseconds(start) / 1000.0;
    printf("while a script runs %.2f s: %.2f%% of one core (goal: under 3%%)\n", seconds,
           100.0 * (processorSeconds() - before) / seconds);
    return 0;
}
