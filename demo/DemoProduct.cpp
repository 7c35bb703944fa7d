// The demo product: a program that runs until it is asked to quit, as a
// running copy of a real product would, and that tells the installer which
// started it that it runs, with the "Done" event carrying its name and
// version.
#include <QCoreApplication>
#include <QTimer>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVBundle.h"
#include "KVFourCharCode.h"
#include "KVProcess.h"

namespace {
// The installer's four-character signature.
const char *const kInstallerSignature = "VlIn";
}  // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    // Receiving events at all makes the program answer the quit event.
    KVAppleEventManager::sharedManager().setEventHandler(KVFourCharCode::fromString("VDmo"),
                                                         KVFourCharCode::fromString("Ping"),
                                                         [](const QString &) {});
    QTimer::singleShot(0, [] {
        const KVProcessRef installer = KVProcess::processWithSignatureString(kInstallerSignature);
        if (!installer) return;
        const QVariantMap info = KVBundle::mainBundle().infoDictionary();
        const QString label = info.value("CFBundleName").toString() + ' ' +
                              info.value("CFBundleShortVersionString").toString();
        KVAppleEvent::send(installer->unixPID(), KVFourCharCode::fromString("SinS"),
                           KVFourCharCode::fromString("Done"), label, 0);
    });
    return app.exec();
}
