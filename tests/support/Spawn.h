// Children are started with posix_spawn: ThreadSanitizer refuses a fork in a
// threaded process. Plain POSIX, so that the small test programs can use it too.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

// Its pid or -1; with output named, input is /dev/null and output and error go
// to the files; endWithParent: it ends with a crashed test.
inline pid_t spawn(std::vector<std::string> words, const std::string &output = {},
                   const std::string &errors = {}, bool endWithParent = false,
                   bool ownGroup = false) {
    if (endWithParent) words.insert(words.begin(), {"setpriv", "--pdeathsig", "TERM", "--"});
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string files[] = {"/dev/null", output, errors};
    for (int fd = 0; fd < 3 && !output.empty(); ++fd)
        posix_spawn_file_actions_addopen(&actions, fd, files[fd].c_str(),
                                         fd ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY, 0600);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr,
                             POSIX_SPAWN_SETSIGMASK | (ownGroup ? POSIX_SPAWN_SETPGROUP : 0));
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return failed ? -1 : pid;
}

// Whether it ended (and is reaped) within about the milliseconds.
inline bool waitForExit(pid_t pid, int milliseconds, int *status = nullptr) {
    for (int waited = 0;; waited += 5) {
        const pid_t done = waitpid(pid, status, WNOHANG);
        if (done == pid || (done < 0 && errno == ECHILD)) return true;
        if (waited >= milliseconds) return false;
        usleep(5000);
    }
}

inline void stopProcess(pid_t &pid, int signal = SIGTERM) {
    if (pid > 0 && (kill(pid, signal), !waitForExit(pid, 5000)))
        kill(pid, SIGKILL), waitForExit(pid, 5000);
    pid = -1;
}

struct ReadySpawn {
    pid_t pid = -1;  // -1 when it could not be started
    bool ready = false;
};

// Adds "--ready-fd N" and waits up to ten seconds for the byte written there.
inline ReadySpawn spawnReady(std::vector<std::string> words, bool ownGroup) {
    int ready[2];
    if (pipe(ready) != 0) return {};
    fcntl(ready[0], F_SETFD, FD_CLOEXEC);
    words.insert(words.end(), {"--ready-fd", std::to_string(ready[1])});
    const pid_t pid = spawn(std::move(words), {}, {}, false, ownGroup);
    close(ready[1]);
    pollfd watch{ready[0], POLLIN, 0};
    char byte = 0;
    const ReadySpawn result{
        pid, pid > 0 && poll(&watch, 1, 10000) == 1 && read(ready[0], &byte, 1) == 1};
    close(ready[0]);
    return result;
}
