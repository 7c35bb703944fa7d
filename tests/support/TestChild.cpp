// A small real program that tests start inside bundles: it reports that it
// is ready on the descriptor given by --ready-fd, then waits for signals.
//   --ignore-term   keeps running on SIGTERM (only SIGKILL ends it)
//   --exit-after S  ends by itself after S seconds
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
    int readyFd = -1;
    unsigned exitAfter = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--ignore-term") == 0) std::signal(SIGTERM, SIG_IGN);
        if (std::strcmp(argv[i], "--ready-fd") == 0 && i + 1 < argc) readyFd = std::atoi(argv[++i]);
        if (std::strcmp(argv[i], "--exit-after") == 0 && i + 1 < argc)
            exitAfter = unsigned(std::atoi(argv[++i]));
    }
    if (readyFd >= 0) {
        const char ok = '1';
        (void)!write(readyFd, &ok, 1);
        close(readyFd);
    }
    if (exitAfter > 0) {
        sleep(exitAfter);
        return 0;
    }
    for (;;) pause();
}
