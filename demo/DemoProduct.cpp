// The demo product: a program that runs until it is asked to quit, as a
// running copy of a real product would, and that tells the installer which
// started it that it runs, with the "Done" event carrying its name and
// version.
#include <QCoreApplication>
#include <QTimer>

#include "KVAppleEventManager.h"
#include "KVBundle.h"
#include "KVFourCharCode.h"
#include "KVInstallerInterface.h"

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    // Receiving events at all makes the program answer the quit event.
    KVAppleEventManager::sharedManager().setEventHandler(KVFourCharCode::fromString("VDmo"),
                                                         KVFourCharCode::fromString("Ping"),
                                                         [](const QString &) {});
    QTimer::singleShot(0, [] {
        // The installer that started this copy, not merely the first one
        // running: two may run at once.
        const KVProcessRef installer = KVInstallerInterface::launchingInstaller();
        if (!installer) return;
        const QVariantMap info = KVBundle::mainBundle().infoDictionary();
        const QString label = info.value("CFBundleName").toString() + ' ' +
                              info.value("CFBundleShortVersionString").toString();
        installer->sendAppleEventClass(KVFourCharCode::fromString("SinS"),
                                       KVFourCharCode::fromString("Done"), label);
    });
    return app.exec();
}
