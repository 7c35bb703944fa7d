#include "Relaunch.h"

#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

QString Relaunch::unprivilegedUser() { return QStringLiteral("kvtest"); }

bool Relaunch::isRoot() { return geteuid() == 0; }

bool Relaunch::isCopy() { return qEnvironmentVariableIsSet("KV_TEST_COPY"); }

int Relaunch::runCopy(const QString &executablePath, const QString &filter, const QString &user,
                      QString *output, const QStringList &environment) {
    // The build tree may lie where another user cannot reach (a checkout
    // under /root), so the copy's folders are opened to everyone.
    const QFileInfo target(executablePath);
    QDir().mkpath(target.absolutePath());
    for (QString folder = target.absolutePath(); folder.size() > 1 && folder != QDir::tempPath();
         folder = QFileInfo(folder).absolutePath())
        QFile::setPermissions(folder,
                              QFile::permissions(folder) | QFile::ReadOther | QFile::ExeOther);
    QFile::remove(executablePath);
    if (!QFile::copy(QStringLiteral("/proc/self/exe"), executablePath)) return -1;
    QFile::setPermissions(executablePath,
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);

    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KV_TEST_COPY", "1");
    for (const QString &entry : environment)
        env.insert(entry.section('=', 0, 0), entry.section('=', 1));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    const QString gtestFilter = "--gtest_filter=" + filter;
    if (user.isEmpty())
        process.start(executablePath, {gtestFilter});
    else
        process.start(QStringLiteral("runuser"), {"-u", user, "--", executablePath, gtestFilter});
    if (!process.waitForFinished(120000)) return -1;
    *output = QString::fromLocal8Bit(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
