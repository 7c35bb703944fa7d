// The process the quit benchmark ends. "ready" goes to standard output once
// the handlers are set; with --exit-on-term the moment of exit (monotonic
// nanoseconds) is written to the descriptor named by --exit-fd first.
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "BenchSupport.h"

namespace {
int s_exitFd = -1;

void exitNow(int) {
    const int64_t ns = nanoseconds();
    (void)!write(s_exitFd, &ns, sizeof ns);
    _exit(0);
}
}  // namespace

int main(int argc, char **argv) {
    bool ignore = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--ignore-term") == 0) ignore = true;
        if (std::strcmp(argv[i], "--exit-fd") == 0 && i + 1 < argc) s_exitFd = std::atoi(argv[++i]);
    }
    std::signal(SIGTERM, ignore ? SIG_IGN : exitNow);
    std::puts("ready");
    std::fflush(stdout);
    for (;;) pause();
}
