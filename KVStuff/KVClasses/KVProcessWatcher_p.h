// How KVProcess learns that applications start, end or come to the front:
// each system answers in its own KVProcessWatcher_<system> file, on the
// thread of the running Qt application. Not part of the library's interface.
#pragma once

#include <functional>

#include "KVCompatibility.h"

namespace KVProcessWatcher {

enum class Change {
    Started,
    Ended,
    Front,
    // A process already reported as ended has now exited too: its record
    // can leave the cache, but nothing new has happened.
    Exited,
};

// Starts watching, on the application's thread, and calls changed there for
// every change from then on. False, with nothing started, before an
// application object exists.
bool install(std::function<void(Change)> changed);
// Watches the end of the process from any thread; once installed, its end
// is reported (Ended, or Exited after an Ended).
void watchEnd(const ProcessSerialNumber &psn);

}  // namespace KVProcessWatcher
