// A product as the installer installs it: it answers the quit event, and once
// started sends "Done" with its name and version to the installer named by
// KV_TEST_DONE_PID ("launcher": the one that launched it, as the demo finds it).
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVBundle.h"
#include "KVFourCharCode.h"
#include "KVInstallerInterface.h"

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    // Receiving at all makes the default quit handler answer.
    KVAppleEventManager::sharedManager().setEventHandler(KVFourCharCode::fromString("TEST"),
                                                         KVFourCharCode::fromString("Ping"),
                                                         [](const QString &) {});
    const int readyFd = app.arguments().value(app.arguments().indexOf("--ready-fd") + 1).toInt();
    if (readyFd > 0 && write(readyFd, "1", 1) == 1) close(readyFd);  // from TestBundle::start
    const bool toLauncher = qgetenv("KV_TEST_DONE_PID") == "launcher";
    const pid_t installer = pid_t(qEnvironmentVariableIntValue("KV_TEST_DONE_PID"));
    if (installer <= 0 && !toLauncher) return app.exec();
    const QVariantMap info = KVBundle::mainBundle().infoDictionary();
    const QString label = info.value("CFBundleName").toString() + ' ' +
                          info.value("CFBundleShortVersionString").toString();
    QTimer::singleShot(0, [installer, toLauncher, label] {
        const KVProcessRef launcher =
            toLauncher ? KVInstallerInterface::launchingInstaller() : nullptr;
        KVAppleEvent::send(launcher ? launcher->unixPID() : installer,
                           KVFourCharCode::fromString("SinS"), KVFourCharCode::fromString("Done"),
                           label, 0);
    });
    return app.exec();
}
