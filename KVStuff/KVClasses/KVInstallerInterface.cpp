#include "KVInstallerInterface.h"

#include "KVUtilities_p.h"

const QString KVInstallerKeyProductName = QStringLiteral("productName");
const QString KVInstallerKeyVersion = QStringLiteral("version");
const QString KVInstallerKeyMinSystemVersion = QStringLiteral("minSystemVersion");
const QString KVInstallerKeySourcePath = QStringLiteral("sourcePath");
const QString KVInstallerKeyDestinationPath = QStringLiteral("destinationPath");
const QString KVInstallerKeyDocumentationPath = QStringLiteral("documentationPath");
const QString KVInstallerKeyReadMePath = QStringLiteral("readMePath");
const QString KVInstallerKeyProductCode = QStringLiteral("productCode");
const QString KVInstallerKeyQuitCode = QStringLiteral("quitCode");
const QString KVInstallerKeyIconPath = QStringLiteral("iconPath");
const QString KVInstallerKeyWrapperPath = QStringLiteral("wrapperPath");
const QString KVInstallerCompletionSound = QStringLiteral("completionSound");
const QString KVInstallerCompletionQuit = QStringLiteral("completionQuit");
const QString KVInstallerSignature = QStringLiteral("VlIn");

KVProcessRef KVInstallerInterface::launchingInstaller() {
    const KVProcessRef parent = KVProcess::processWithPID(KVUtilitiesPrivate::launchingProcessID());
    if (parent && parent->signatureString() == KVInstallerSignature) return parent;
    return KVProcess::processWithSignatureString(KVInstallerSignature);
}
