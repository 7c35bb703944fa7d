// The words a launcher writes on the installer's command line: "-" plus one of
// these keys, followed by the value (or, for keys ending in "Code", values).
#pragma once

#include <QString>

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
