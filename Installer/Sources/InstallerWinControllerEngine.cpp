// The installation engine's half of InstallerWinController: where the
// product goes, whether that place is writable, and which running copies
// must quit first.
#include <QThread>

#include "InstallerWinController.h"
#include "KVFileManager.h"
#include "KVFourCharCode.h"
#include "KVInstallerInterface.h"
#include "KVLog.h"
#include "KVLoginItems.h"
#include "KVPath.h"
#include "KVProcess.h"

using namespace KVPath;

// ---------------------------------------------------------------------------
// Destination choice

QString InstallerWinController::applicationsDirectory() const {
    const QStringList local = KVFileManager::applicationDirectories(KVFileManager::Domain::Local);
    const QString localFolder = local.isEmpty() ? QString() : local.last();
    if (!localFolder.isNull() && canWriteToFileOrDirectory(localFolder)) return localFolder;
    kvLog("Can't write to /Applications, checking ~/Applications");
    const QStringList user = KVFileManager::applicationDirectories(KVFileManager::Domain::User);
    const QString userFolder = user.isEmpty() ? QString() : user.last();
    kvLog("User applicationsDirectory: %@", userFolder);
    if (userFolder.isNull()) return localFolder;
    return canWriteToFileOrDirectory(userFolder) ? userFolder : localFolder;
}

QString InstallerWinController::findPreferredDestinationFor(const QString &name) const {
    const QString path = autoLaunchPathFor(name);
    kvLog("autolaunch = %@", path);
    if (path.isNull() || isInUnsupportedFolder(path)) return pathToProcessToReplace();
    return path;
}

QString InstallerWinController::autoLaunchPathFor(const QString &name) const {
    for (const QString &path : KVLoginItems::resolvedPaths()) {
        if (lastPathComponent(path).startsWith(name)) return path;
    }
    return QString();
}

bool InstallerWinController::signature(OSType signature, const QVariant &isInArray) {
    if (!isInArray.isValid()) return false;
    const QStringList codes = isInArray.toStringList();
    if (int32_t(codes.size()) < 1) return false;
    for (const QString &code : codes) {
        if (KVFourCharCode::fromString(code) == signature) return true;
    }
    return false;
}

QString InstallerWinController::pathToProcessToReplace() const {
    const QVariant codes = m_arguments.value(KVInstallerKeyProductCode);
    if (!codes.isValid()) return QString();
    const QStringList list = codes.toStringList();
    const OSType mainCode = KVFourCharCode::fromString(list.value(0));
    const KVProcessRef me = KVProcess::currentProcess();
    // A copy with the main code wins over one with an alternative code, even
    // when the latter comes first.
    const auto find = [&](auto matches) -> QString {
        for (const KVProcessRef &process : KVProcess::allProcesses()) {
            if (!matches(process->signature()) || process->isEqual(me)) continue;
            const QString path = process->path();
            if (!isInUnsupportedFolder(path)) return path;
        }
        return QString();
    };
    const QString path = find([&](OSType s) { return s == mainCode; });
    if (!path.isNull() || list.size() < 2) return path;
    return find([&](OSType s) { return signature(s, codes); });
}

bool InstallerWinController::isInUnsupportedFolder(const QString &path) const {
    if (path.isNull()) return false;
    return (path.contains(QLatin1String("/build")) && path.contains(QLatin1String("/tov/"))) ||
           (path.contains(QLatin1String("/Volumes/")) && path.contains(QLatin1String("-Install"))) ||
           path.contains(QLatin1String("/Trash/")) || path.contains(QLatin1String("/.Trash/")) ||
           path.startsWith(QLatin1String("/private/var/"));
}

// ---------------------------------------------------------------------------
// Writability

bool InstallerWinController::canWriteToPath(const QString &path) const {
    if (KVFileManager::fileExistsAtPath(path) && !canWriteToFileOrDirectory(path)) {
        kvLog("Cannot write to item %@", path);
        return false;
    }
    QString folder = stringByDeletingLastPathComponent(path);
    while (folder.size() >= 2 && !KVFileManager::fileExistsAtPath(folder))
        folder = stringByDeletingLastPathComponent(folder);
    if (canWriteToFileOrDirectory(folder)) return true;
    kvLog("Cannot write to folder %@", folder);
    return false;
}

bool InstallerWinController::canWriteToFileOrDirectory(const QString &path) const {
    return KVFileManager::isWritableFileAtPath(path);
}

QString InstallerWinController::localizedPath(const QString &path) const {
    return recursiveLocalizedPath(stringByAbbreviatingWithTildeInPath(path));
}

QString InstallerWinController::recursiveLocalizedPath(const QString &path) const {
    if (path.size() < 3) return path;
    return stringByAppendingPathComponent(
        recursiveLocalizedPath(stringByDeletingLastPathComponent(path)),
        KVFileManager::displayNameAtPath(stringByExpandingTildeInPath(path)));
}

// ---------------------------------------------------------------------------
// Running copies

namespace {
// The processes whose signature is in the quit codes, the installer excepted,
// in process-list order.
QList<KVProcessRef> processesToQuit(const QVariant &quitCodes) {
    QList<KVProcessRef> matches;
    if (!quitCodes.isValid()) return matches;
    const KVProcessRef me = KVProcess::currentProcess();
    for (const KVProcessRef &process : KVProcess::allProcesses()) {
        if (InstallerWinController::signature(process->signature(), quitCodes) &&
            !process->isEqual(me))
            matches << process;
    }
    return matches;
}
}  // namespace

void InstallerWinController::quitProcesses() {
    for (const KVProcessRef &process : processesToQuit(m_arguments.value(KVInstallerKeyQuitCode))) {
        kvLog("Quitting '%@': %@", process->signatureString(), process->name());
        process->quit();
        QThread::usleep(100000);
    }
}

QString InstallerWinController::processToQuitStillRunning() const {
    const QList<KVProcessRef> running = processesToQuit(m_arguments.value(KVInstallerKeyQuitCode));
    if (running.isEmpty()) return QString();
    const KVProcessRef &process = running.first();
    kvLog("Still running '%@': %@", process->signatureString(), process->name());
    return process->name();
}
