#include "Relaunch.h"

#include <unistd.h>

#include <QDir>
#include <QProcess>

#include "TestEnvironment.h"

QString Relaunch::unprivilegedUser() { return QStringLiteral("kvtest"); }

bool Relaunch::isRoot() { return geteuid() == 0; }

bool Relaunch::isCopy() { return qEnvironmentVariableIsSet("KV_TEST_COPY"); }

namespace {
// The build tree may lie where another user cannot reach (a checkout under
// /root), so what is staged goes into a folder opened to everyone.
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

namespace {
// The copy's exit status, -1 when it could not run.
int runCopy(const QString &executablePath, const QString &filter, const QString &user,
            QString *output, const QStringList &environment) {
    makeReachable(QFileInfo(executablePath).absolutePath());
    QFile::remove(executablePath);
    if (!QFile::copy(QStringLiteral("/proc/self/exe"), executablePath)) return -1;
    QFile::setPermissions(executablePath,
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KV_TEST_COPY", "1");
    if (!user.isEmpty()) env.insert("LD_LIBRARY_PATH", Relaunch::libraryFolder());
    for (const QString &entry : environment)
        env.insert(entry.section('=', 0, 0), entry.section('=', 1));
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    QStringList command{executablePath, "--gtest_filter=" + filter};
    if (!user.isEmpty()) command = QStringList{"runuser", "-u", user, "--"} + command;
    const QString program = command.takeFirst();
    process.start(program, command);
    if (!process.waitForFinished(120000)) return -1;
    *output = QString::fromLocal8Bit(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
}  // namespace

testing::AssertionResult Relaunch::copyPasses(const QString &executablePath, const QString &filter,
                                              const QString &user, const QStringList &environment) {
    QString output;
    const int status = runCopy(executablePath, filter, user, &output, environment);
    if (status == 0 && output.contains("[  PASSED  ] 1 test")) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "status " << status << "\n" << output.toStdString();
}
