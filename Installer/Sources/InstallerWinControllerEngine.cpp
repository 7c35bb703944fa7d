// The installation engine's half of InstallerWinController: where the
// product goes, whether that place is writable, and which running copies
// must quit first.
#include <QFileInfo>
#include <QMetaObject>
#include <QThread>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>

#include "AuthorizedExecute.h"
#include "InstallFunction.h"
#include "InstallerWinController.h"
#include "KVBundle.h"
#include "KVFileManager.h"
#include "KVFourCharCode.h"
#include "KVInstallerInterface.h"
#include "KVLaunchServices.h"
#include "KVLog.h"
#include "KVLoginItems.h"
#include "KVPath.h"
#include "KVProcess.h"
#include "KVWorkspace.h"

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

namespace {
// The processes, in list order and the installer excepted, whose signature
// passes the test. One that ends during the walk has no signature left (0)
// and matches nothing, even a code that is no four characters (which also
// converts to 0).
template <typename Test>
QList<KVProcessRef> otherProcessesWhose(Test matches) {
    QList<KVProcessRef> found;
    const KVProcessRef me = KVProcess::currentProcess();
    for (const KVProcessRef &process : KVProcess::allProcesses()) {
        const OSType signature = process->signature();
        if (signature != 0 && matches(signature) && !process->isEqual(me)) found << process;
    }
    return found;
}
}  // namespace

QString InstallerWinController::pathToProcessToReplace() const {
    const QVariant codes = m_arguments.value(KVInstallerKeyProductCode);
    if (!codes.isValid()) return QString();
    const QStringList list = codes.toStringList();
    const OSType mainCode = KVFourCharCode::fromString(list.value(0));
    // A copy with the main code wins over one with an alternative code, even
    // when the latter comes first.
    const auto find = [&](auto matches) -> QString {
        for (const KVProcessRef &process : otherProcessesWhose(matches)) {
            // A copy that has ended since the walk has no path and is passed over.
            const QString path = process->path();
            if (!path.isNull() && !isInUnsupportedFolder(path)) return path;
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
           (path.contains(QLatin1String("/Volumes/")) &&
            path.contains(QLatin1String("-Install"))) ||
           path.contains(QLatin1String("/Trash/")) || path.contains(QLatin1String("/.Trash/")) ||
           path.startsWith(QLatin1String("/private/var/")) || isInUnsupportedSystemFolder(path);
}

// ---------------------------------------------------------------------------
// Writability

bool InstallerWinController::canWriteToPath(const QString &path) const {
    // A link is replaced, never written through: its folder decides, also
    // for one that leads nowhere (which no writability test could pass).
    if (KVFileManager::fileExistsAtPath(path) && !QFileInfo(path).isSymLink() &&
        !canWriteToFileOrDirectory(path)) {
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
    if (!quitCodes.isValid()) return {};
    return otherProcessesWhose(
        [&](OSType s) { return InstallerWinController::signature(s, quitCodes); });
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

// ---------------------------------------------------------------------------
// Putting the product in place

namespace {

std::mutex s_labelLock;
QString s_installationInProgress;

void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// One step of the launch sequence: an exception it raises is logged with the
// step's line and the sequence goes on.
template <typename Step>
void guarded(const char *exceptionLine, Step step) {
    try {
        step();
    } catch (const std::exception &exception) {
        kvLog(QLatin1String(exceptionLine), QString::fromLocal8Bit(exception.what()));
    }
}

}  // namespace

QString InstallerWinController::installationInProgress() {
    const std::lock_guard lock(s_labelLock);
    return s_installationInProgress;
}

QString InstallerWinController::installMyselfInDestination() {
    const QString source = m_arguments.value(KVInstallerKeySourcePath).toString();
    const QString destination = m_arguments.value(KVInstallerKeyDestinationPath).toString();
    const QString wrapper = m_arguments.contains(KVInstallerKeyWrapperPath)
                                ? m_arguments.value(KVInstallerKeyWrapperPath).toString()
                                : QString();
    const bool writable = canWriteToPath(destination);
    {
        // Replaced whole: the main thread's event handler reads it.
        const std::lock_guard lock(s_labelLock);
        s_installationInProgress = kvFormat("%@ %@", m_arguments.value(KVInstallerKeyProductName),
                                            m_arguments.value(KVInstallerKeyVersion));
    }
    bool privileged = !writable;
    if (m_optionKeyDown) {
        kvLog("enforcing authorization");
        privileged = true;
    }
    if (!privileged) {
        const int result = InstallApplication(source, destination, wrapper);
        if (result == 1) {
            m_failureStatus = InstallerExitStatus::CouldNotDeleteExistingCopy;
            return QStringLiteral("Could not delete existing copy.");
        }
        if (result != 0) {
            m_failureStatus = InstallerExitStatus::CopyFailed;
            return QStringLiteral("Installation failed.");
        }
    } else {
        bool canceled = false;
        if (!authorizedInstall(source, destination, wrapper, &canceled)) {
            if (canceled) {
                kvLog("User canceled authorization");
                return QStringLiteral("");
            }
            kvLog("ERROR -- Could not copy myself to /Applications with authorization");
            return QStringLiteral("Authorized copying failed.");
        }
    }
    kvLog("successfully copied");
    registerAndLaunch(destination);
    return QString();
}

bool InstallerWinController::authorizedInstall(const QString &source, const QString &to,
                                               const QString &wrap, bool *canceled) {
    if (canceled) *canceled = false;
    // Until the tool itself has run, a failure is one of getting the rights.
    m_failureStatus = InstallerExitStatus::AuthorizationNotGiven;
    if (to.trimmed().isEmpty() || source.trimmed().isEmpty()) return false;
    // The animation is off while the system's dialog asks for the password.
    QMetaObject::invokeMethod(this, "animateProgress", Qt::QueuedConnection,
                              Q_ARG(QString, QString()));
    AuthorizationRef reference;
    if (!AuthorizationCreate(&reference)) return false;
    reference.granted = [this] {
        QMetaObject::invokeMethod(this, "animateProgress", Qt::QueuedConnection,
                                  Q_ARG(QString, QStringLiteral("YES")));
    };
    QStringList arguments{source, to};
    if (!wrap.isNull()) arguments << wrap;
    const QString tool = KVBundle::bundleWithPath(m_mainBundlePath)
                             .value_or(KVBundle::mainBundle())
                             .pathForResource(QStringLiteral("train"), QString());
    const int32_t status = AuthorizedExecute(reference, tool, arguments);
    if (status == errAuthorizationCanceled && canceled) *canceled = true;
    if (status == -1) m_failureStatus = InstallerExitStatus::CopyFailed;
    return status == 0;
}

void InstallerWinController::registerAndLaunch(const QString &destination) {
    guarded("EXCEPTION @ noteFileSystemChanged: %@",
            [&] { KVWorkspace::noteFileSystemChanged(destination); });
    kvLog("launching %@", destination);
    sleepSeconds(0.5);
    kvLog("waited 0.5");
    guarded("EXCEPTION @ LSRegisterURL: %@", [&] {
        const int status = KVLaunchServices::registerURL(destination, true);
        kvLog("registered app: %d", status);
    });
    sleepSeconds(0.3);
    kvLog("waited 0.3");
    guarded("EXCEPTION @ iconForFile: %@", [&] {
        if (!KVWorkspace::iconForFile(destination).isNull()) return;
        kvLog("did not get icon");
        sleepSeconds(1.0);
        kvLog("retry; %@", KVWorkspace::iconForFile(destination).isNull() ? "failed" : "succeeded");
    });
    bool launched = false;
    guarded("EXCEPTION @ openFile: %@", [&] {
        launched = KVWorkspace::openFile(destination);
        kvLog("launched immediately: %d", int(launched));
    });
    unsigned count = 0;
    try {
        // The workspace may not know a fresh copy yet: up to ten retries.
        while (!launched && count <= 9) {
            ++count;
            sleepSeconds(0.5);
            kvLog("retry opening (count=%d)", count);
            launched = KVWorkspace::openFile(destination);
            kvLog("launched: %d", int(launched));
        }
    } catch (const std::exception &exception) {
        kvLog("EXCEPTION @ retry loop (count=%d): %@", count,
              QString::fromLocal8Bit(exception.what()));
    }
    // The installer, with its final page, comes back in front of the product.
    if (const KVProcessRef me = KVProcess::currentProcess()) me->setFrontProcessFrontWindowOnly();
}
