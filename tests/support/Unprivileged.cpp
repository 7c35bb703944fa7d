#include "Unprivileged.h"

#include <QFileInfo>
#include <QProcess>
#include <unistd.h>

QString Unprivileged::userName() { return QStringLiteral("kvtest"); }

bool Unprivileged::isRoot() { return geteuid() == 0; }

int Unprivileged::runTests(const QString &filter, QString *output) {
    const QString self = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("runuser"),
                  {QStringLiteral("-u"), userName(), QStringLiteral("--"), self,
                   "--gtest_filter=" + filter});
    if (!process.waitForFinished(120000)) return -1;
    *output = QString::fromLocal8Bit(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
