#include "Relaunch.h"

#include <unistd.h>

#include <QDir>
#include <QProcess>

#include "TestEnvironment.h"

QString Relaunch::unprivilegedUser() { return "kvtest"; }

bool Relaunch::isRoot() { return geteuid() == 0; }

bool Relaunch::isCopy() { return qEnvironmentVariableIsSet("KV_TEST_COPY"); }

namespace {
// The build tree may lie where another user cannot reach (under /root).
void makeReachable(const QString &folder) {
    QDir().mkpath(folder);
    for (QString f = folder; f.size() > 1 && f != QDir::tempPath(); f = QFileInfo(f).absolutePath())
        QFile::setPermissions(f, QFile::permissions(f) | QFile::ReadOther | QFile::ExeOther);
}
}  // namespace

QString Relaunch::libraryFolder() {
    const QString folder = TestEnvironment::root() + "/lib";
    const QString copy = folder + "/" + QFileInfo(KV_TEST_LIBRARY).fileName();
    if (QFileInfo::exists(copy)) return folder;
    makeReachable(folder);
    return QFile::copy(KV_TEST_LIBRARY, copy) ? folder : QString();
}

QString Relaunch::stage(const QString &path, const QString &folder) {
    makeReachable(folder);
    const QString copy = folder + "/" + QFileInfo(path).fileName();
    QDir(copy).removeRecursively();
    return QProcess::execute("cp", {"-a", path, copy}) == 0 ? copy : QString();
}

testing::AssertionResult Relaunch::copyPasses(const QString &executablePath, const QString &filter,
                                              const QString &user, const QStringList &environment) {
    makeReachable(QFileInfo(executablePath).absolutePath());
    QFile::remove(executablePath);
    if (!QFile::copy("/proc/self/exe", executablePath))
        return testing::AssertionFailure() << "cannot copy the test binary";
    QFile::setPermissions(executablePath,
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KV_TEST_COPY", "1");
    if (!user.isEmpty()) env.insert("LD_LIBRARY_PATH", libraryFolder());
    for (const QString &entry : environment)
        env.insert(entry.section('=', 0, 0), entry.section('=', 1));
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    const QStringList command{executablePath, "--gtest_filter=" + filter};
    if (user.isEmpty())
        process.start(command[0], command.mid(1));
    else
        process.start("runuser", QStringList{"-u", user, "--"} + command);
    const bool ended =
        process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit;
    const QString output = QString::fromLocal8Bit(process.readAll());
    if (ended && process.exitCode() == 0 && output.contains("[  PASSED  ] 1 test"))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "status " << (ended ? process.exitCode() : -1) << "\n"
                                       << output.toStdString();
}
