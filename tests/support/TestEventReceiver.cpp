// Says whether it receives events ("ready" or "not receiving"), then sends
// TEST/Echo once per PID TIMEOUT_MS pair of its arguments, printing
// "sent <result>" for each.
#include <QCoreApplication>
#include <cstdio>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVFourCharCode.h"

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    std::puts(KVAppleEventManager::sharedManager().isReceiving() ? "ready" : "not receiving");
    const OSType test = KVFourCharCode::fromString("TEST");
    for (int i = 1; i + 1 < argc; i += 2)
        std::printf("sent %d\n", KVAppleEvent::send(pid_t(atoi(argv[i])), test, test + 1, "x",
                                                    atoi(argv[i + 1])));
    return 0;
}
