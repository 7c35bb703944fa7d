// What the environment queries cost per call, and what following full-screen
// mode costs while nothing happens on the desktop. Needs an X display with a
// window manager, for example:
//   xvfb-run -a sh -c 'openbox & sleep 1; environment_bench 60'
#include <sys/resource.h>

#include <QApplication>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "BenchSupport.h"
#include "KVUtilities.h"

namespace {

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void timeCalls(const char *name, const std::function<void()> &call) {
    std::vector<double> microseconds;
    for (int i = 0; i < 200; ++i) {
        const int64_t start = nanoseconds();
        call();
        microseconds.push_back(double(nanoseconds() - start) / 1000.0);
    }
    std::printf("%-22s median %8.1f us a call\n", name, median(microseconds));
}

}  // namespace

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    if (KVUtilities::idleTime() < 0) {
        std::fputs("no X display with the screen-saver extension\n", stderr);
        return 1;
    }
    timeCalls("idleTime", [] { KVUtilities::idleTime(); });
    timeCalls("secureInputProcesses", [] { KVUtilities::secureInputProcesses(); });
    timeCalls("darkAppearance", [] { KVUtilities::darkAppearance(); });
    timeCalls("fullScreenMode", [] { KVUtilities::fullScreenMode(); });

    const double before = cpuSeconds();
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    std::printf("following full-screen mode on an idle desktop for %d s: %.4f%% of one core\n",
                seconds, 100.0 * (cpuSeconds() - before) / seconds);
    return 0;
}
