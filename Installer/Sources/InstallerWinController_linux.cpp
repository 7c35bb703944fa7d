#include <fcntl.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <cstdlib>

#include "InstallerWinController.h"
#include "KVFileManager.h"
#include "KVFormat.h"
#include "KVPath.h"

QString InstallerWinController::logFilePath() {
    const QString state = KVPath::userFolder(KVPath::UserFolder::State);
    // A new account may not have the folder yet; the log must still land.
    QDir().mkpath(state);
    return state + "/VelmoraInstaller.log";
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
