#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <cerrno>
#include <cstdlib>

#include "InstallerWinController.h"
#include "KVFileManager.h"
#include "KVFormat.h"
#include "KVPath.h"

namespace {

// Where the desktop mounts removable media, and the temporary folders
// (AppImages run from /tmp/.mount_*). A copy found there is one the user
// runs from a medium or has not installed.
bool liesInSystemPlace(const QString &path) {
    static const QLatin1String prefixes[] = {
        QLatin1String("/media/"), QLatin1String("/run/media/"), QLatin1String("/mnt/"),
        QLatin1String("/tmp/"),   QLatin1String("/var/tmp/"),   QLatin1String("/dev/shm/")};
    for (const QLatin1String &prefix : prefixes)
        if (path.startsWith(prefix)) return true;
    // A volume's own trash folder, .Trash-<uid> at its top.
    static const QRegularExpression volumeTrash(QStringLiteral("/\\.Trash-[0-9]+/"));
    return path.contains(volumeTrash);
}

// The mount point of the file system that holds the item: its topmost
// folder on the same device.
QString mountPointOf(const QString &canonicalPath, dev_t device) {
    QString point = canonicalPath;
    for (QString up = QFileInfo(point).path(); up != point; up = QFileInfo(up).path()) {
        struct stat info;
        if (stat(QFile::encodeName(up).constData(), &info) != 0 || info.st_dev != device) break;
        point = up;
    }
    return point;
}

// Whether the block device is a removable one (a partition's flag is on
// its disk).
bool isRemovableDevice(dev_t device) {
    const QString real =
        QFileInfo(QStringLiteral("/sys/dev/block/%1:%2").arg(major(device)).arg(minor(device)))
            .canonicalFilePath();
    if (real.isEmpty()) return false;
    for (const QString &folder : {real, QFileInfo(real).path()}) {
        QFile flag(folder + QStringLiteral("/removable"));
        if (flag.open(QIODevice::ReadOnly) && flag.readAll().trimmed() == "1") return true;
    }
    return false;
}

}  // namespace

bool InstallerWinController::isInUnsupportedSystemFolder(const QString &path) {
    if (path.isEmpty()) return false;
    if (liesInSystemPlace(path)) return true;
    // Judged again where the item really is: a link may lead onto a medium,
    // and a medium may be mounted anywhere, as long as the desktop's
    // media/<user>/<volume> ends its mount point.
    const QString real = QFileInfo(path).canonicalFilePath();
    struct stat info;
    if (real.isEmpty() || stat(QFile::encodeName(real).constData(), &info) != 0) return false;
    static const QRegularExpression mediaMount(QStringLiteral("(^|/)media/[^/]+/[^/]+$"));
    return liesInSystemPlace(real) || mountPointOf(real, info.st_dev).contains(mediaMount) ||
           isRemovableDevice(info.st_dev);
}

QString InstallerWinController::logFilePath() {
    const QString state = KVPath::userFolder(KVPath::UserFolder::State);
    // A new account may not have the folder yet; the log must still land.
    QDir().mkpath(state);
    return state + "/VelmoraInstaller.log";
}

bool InstallerWinController::hasDisplay() {
    if (!qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return true;
    // Qt's own platforms for X11 and Wayland need the server named above;
    // any other asked for by name (offscreen, vnc, linuxfb ...) needs none.
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM").trimmed();
    return !platform.isEmpty() && !platform.startsWith("xcb") && !platform.startsWith("wayland");
}

int InstallerWinController::keepStandardError() {
    // Not inherited by the programs the run starts: the product must not
    // hold the caller's terminal or pipe open after the installer has ended.
    return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
}

void InstallerWinController::writeLineTo(int stream, const QString &text) {
    if (stream < 0) return;
    const QByteArray line = (text + QLatin1Char('\n')).toLocal8Bit();
    for (qsizetype done = 0; done < line.size();) {
        const ssize_t written = write(stream, line.constData() + done, size_t(line.size() - done));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        done += written;
    }
}

bool InstallerWinController::canWriteToFile(const QString &path) const {
    const int fd = open(QFile::encodeName(path).constData(), O_RDWR);
    if (fd < 0) return false;
    close(fd);
    return true;
}

bool InstallerWinController::canWriteToDirectory(const QString &path) const {
    // Two generators on purpose: the second name must not repeat the first.
    QString probe = KVPath::stringByAppendingPathComponent(
        path, kvFormat("temp-%X", unsigned(random() & 0xffffffffu)));
    while (KVFileManager::fileExistsAtPath(probe))
        probe = KVPath::stringByAppendingPathComponent(path, kvFormat("temp-%X", unsigned(rand())));
    const QByteArray name = QFile::encodeName(probe);
    const int fd = open(name.constData(), O_RDWR | O_CREAT, 0644);
    if (fd < 0) return false;
    close(fd);
    unlink(name.constData());
    return true;
}
