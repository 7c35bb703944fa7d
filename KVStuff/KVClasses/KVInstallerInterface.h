// The words a launcher writes on the installer's command line: "-" plus one of
// these keys, followed by the value (or, for keys ending in "Code", values).
#pragma once

#include <QString>

#include "KVProcess.h"

extern const QString KVInstallerKeyProductName;
extern const QString KVInstallerKeyVersion;
extern const QString KVInstallerKeyMinSystemVersion;
extern const QString KVInstallerKeySourcePath;
extern const QString KVInstallerKeyDestinationPath;
extern const QString KVInstallerKeyDocumentationPath;
extern const QString KVInstallerKeyReadMePath;
extern const QString KVInstallerKeyProductCode;
extern const QString KVInstallerKeyQuitCode;
extern const QString KVInstallerKeyIconPath;
extern const QString KVInstallerKeyWrapperPath;
extern const QString KVInstallerCompletionSound;
extern const QString KVInstallerCompletionQuit;

// The installer's four-character signature.
extern const QString KVInstallerSignature;

namespace KVInstallerInterface {
// The installer that launched the calling process (a product it installed
// and started): its parent while that runs and is an installer, else the
// first installer running, as other programs start products too. Null when
// no installer runs.
KVProcessRef launchingInstaller();
}  // namespace KVInstallerInterface
