// A small real program that tests start inside bundles: it reports that it
// is ready on the descriptor given by --ready-fd, then waits for signals.
//   --ignore-term   keeps running on SIGTERM (only SIGKILL ends it)
//   --exit-after S  ends by itself after S seconds
//   --respawn N     on SIGTERM, first starts a copy of itself with N-1 and
//                   waits until it is ready, then ends: a copy that comes
//                   back, with no moment in which none runs
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ReadySpawn.h"

namespace {

void sayReady(int fd) {
    const char ok = '1';
    (void)!write(fd, &ok, 1);
    close(fd);
}

// Starts this program again, in this process group, and waits for its word.
void startSuccessor(const char *self, int respawns) {
    spawnReady({self, "--respawn", std::to_string(respawns)}, false);
}

}  // namespace

int main(int argc, char **argv) {
    int readyFd = -1;
    unsigned exitAfter = 0;
    int respawns = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--ignore-term") == 0) std::signal(SIGTERM, SIG_IGN);
        if (std::strcmp(argv[i], "--ready-fd") == 0 && i + 1 < argc) readyFd = std::atoi(argv[++i]);
        if (std::strcmp(argv[i], "--exit-after") == 0 && i + 1 < argc)
            exitAfter = unsigned(std::atoi(argv[++i]));
        if (std::strcmp(argv[i], "--respawn") == 0 && i + 1 < argc) respawns = std::atoi(argv[++i]);
    }
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    // Blocked before saying ready, so that no request can come between.
    if (respawns > 0) sigprocmask(SIG_BLOCK, &term, nullptr);
    if (readyFd >= 0) sayReady(readyFd);
    if (respawns > 0) {
        int signal;
        sigwait(&term, &signal);
        startSuccessor(argv[0], respawns - 1);
        return 0;
    }
    if (exitAfter > 0) {
        sleep(exitAfter);
        return 0;
    }
    for (;;) pause();
}
