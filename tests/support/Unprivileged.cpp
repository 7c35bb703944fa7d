#include "Unprivileged.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QProcess>
#include <unistd.h>

QString Unprivileged::userName() { return QStringLiteral("kvtest"); }

bool Unprivileged::isRoot() { return geteuid() == 0; }

int Unprivileged::runTests(const QString &filter, QString *output) {
    // The build tree may lie where the user cannot reach (a checkout under
    // /root); a copy of the binary in a temporary folder always can be run.
    QTemporaryDir copyFolder(QDir::tempPath() + "/kvtest-bin-XXXXXX");
    const QString self = copyFolder.filePath(QStringLiteral("tests"));
    if (!QFile::copy(QStringLiteral("/proc/self/exe"), self)) return -1;
    QFile::setPermissions(copyFolder.path(), QFile::ReadOwner | QFile::WriteOwner |
                                                 QFile::ExeOwner | QFile::ReadOther |
                                                 QFile::ExeOther);
    QFile::setPermissions(self, QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther |
                                    QFile::ExeOther);
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("runuser"),
                  {QStringLiteral("-u"), userName(), QStringLiteral("--"), self,
                   "--gtest_filter=" + filter});
    if (!process.waitForFinished(120000)) return -1;
    *output = QString::fromLocal8Bit(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
