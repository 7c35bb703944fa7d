// The demo product: a program that runs until it is asked to quit, as a
// running copy of a real product would.
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {
volatile std::sig_atomic_t s_quit = 0;
void requestQuit(int) { s_quit = 1; }
}  // namespace

int main() {
    std::signal(SIGTERM, requestQuit);
    std::signal(SIGINT, requestQuit);
    while (!s_quit) pause();
    return 0;
}
