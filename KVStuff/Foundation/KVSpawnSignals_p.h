// The signal settings every child the library starts gets: none blocked and
// none ignored, as a new program expects, whatever this process does with
// its own.
#pragma once

#include <signal.h>
#include <spawn.h>

inline void kvSetDefaultSignals(posix_spawnattr_t *attributes, short flags) {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(attributes, &none);
    posix_spawnattr_setsigdefault(attributes, &all);
    posix_spawnattr_setflags(attributes, flags | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}
