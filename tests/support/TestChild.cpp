// A real program for bundles: says ready on --ready-fd, then waits for signals.
//   --ignore-term   keeps running on SIGTERM (only SIGKILL ends it)
//   --respawn N     on SIGTERM, starts a ready copy with N-1, then ends: one always runs
#include <cstring>

#include "Spawn.h"

int main(int argc, char **argv) {
    int readyFd = -1, respawns = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--ignore-term") == 0) std::signal(SIGTERM, SIG_IGN);
        if (std::strcmp(argv[i], "--ready-fd") == 0 && i + 1 < argc) readyFd = atoi(argv[++i]);
        if (std::strcmp(argv[i], "--respawn") == 0 && i + 1 < argc) respawns = atoi(argv[++i]);
    }
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    // Blocked before saying ready, so that no request can come between.
    if (respawns > 0) sigprocmask(SIG_BLOCK, &term, nullptr);
    if (readyFd >= 0 && write(readyFd, "1", 1) == 1) close(readyFd);
    if (respawns <= 0)
        for (;;) pause();
    int signal;
    sigwait(&term, &signal);
    spawnReady({argv[0], "--respawn", std::to_string(respawns - 1)}, false);  // joins the group
}
