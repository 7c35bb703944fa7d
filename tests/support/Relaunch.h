// Behaviour seen only from another place or account runs in a copy of the test binary.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <QProcess>

#include "TestEnvironment.h"

namespace Relaunch {
// scripts/test creates it.
inline QString unprivilegedUser() { return "kvtest"; }
inline bool isRoot() { return geteuid() == 0; }
inline bool isCopy() { return qEnvironmentVariableIsSet("KV_TEST_COPY"); }

inline void makeReachable(const QString &folder) {
    QDir().mkpath(folder);
    for (QString f = folder; f.size() > 1 && f != QDir::tempPath(); f = QFileInfo(f).absolutePath())
        QFile::setPermissions(f, QFile::permissions(f) | QFile::ReadOther | QFile::ExeOther);
}

// cp -a into a folder open to everyone; the copy's path, null on failure.
inline QString stage(const QString &path, const QString &folder) {
    makeReachable(folder);
    const QString copy = folder + "/" + QFileInfo(path).fileName();
    QDir(copy).removeRecursively();
    return QProcess::execute("cp", {"-a", path, copy}) == 0 ? copy : QString();
}

// Such a folder with the shared library, for another user's LD_LIBRARY_PATH.
inline QString libraryFolder() {
    const QString folder = TestEnvironment::root() + "/lib";
    const QString copy = folder + "/" + QFileInfo(KV_TEST_LIBRARY).fileName();
    if (QFileInfo::exists(copy)) return folder;
    makeReachable(folder);
    return QFile::copy(KV_TEST_LIBRARY, copy) ? folder : QString();
}

// Whether a copy at executablePath passed the one test the filter names.
inline testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter) {
    makeReachable(QFileInfo(executablePath).absolutePath());
    QFile::remove(executablePath);
    if (!QFile::copy("/proc/self/exe", executablePath))
        return testing::AssertionFailure() << "cannot copy the test binary";
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KV_TEST_COPY", "1");
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(executablePath, {"--gtest_filter=" + filter});
    const bool ended =
        process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit;
    const QString output = QString::fromLocal8Bit(process.readAll());
    if (ended && process.exitCode() == 0 && output.contains("[  PASSED  ] 1 test"))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "status " << (ended ? process.exitCode() : -1) << "\n"
                                       << output.toStdString();
}
}  // namespace Relaunch
