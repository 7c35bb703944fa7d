// Starts a test program with "--ready-fd N" added to its arguments and waits
// up to ten seconds for the byte it writes there once ready. Plain POSIX, so
// that the small test programs can use it as well as the tests.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

extern char **environ;

struct ReadySpawn {
    pid_t pid = -1;      // -1 when it could not be started
    bool ready = false;  // whether it said so in time
};

// The child starts with no signals blocked; `ownGroup` puts it in a process
// group of its own.
inline ReadySpawn spawnReady(std::vector<std::string> words, bool ownGroup) {
    ReadySpawn result;
    int ready[2];
    if (pipe(ready) != 0) return result;
    fcntl(ready[0], F_SETFD, FD_CLOEXEC);
    words.push_back("--ready-fd");
    words.push_back(std::to_string(ready[1]));
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr,
                             POSIX_SPAWN_SETSIGMASK | (ownGroup ? POSIX_SPAWN_SETPGROUP : 0));
    const int failed = posix_spawn(&result.pid, argv[0], nullptr, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    close(ready[1]);
    if (failed) {
        result.pid = -1;
    } else {
        pollfd watch{ready[0], POLLIN, 0};
        char byte = 0;
        result.ready = poll(&watch, 1, 10000) == 1 && read(ready[0], &byte, 1) == 1;
    }
    close(ready[0]);
    return result;
}
