// Real application bundles for tests, with a test program as their executable.
#pragma once

#include <QDir>
#include <QFile>

#include "KVProcess.h"
#include "KVPropertyList.h"
#include "Spawn.h"

namespace TestBundle {
inline QVariantMap infoOf(const QString &bundlePath) {
    return KVPropertyList::fromFile(bundlePath + "/Contents/Info.plist").toMap();
}
inline QString executableOf(const QString &bundlePath) {
    return bundlePath + "/Contents/MacOS/" +
           infoOf(bundlePath).value("CFBundleExecutable").toString();
}
inline QString versionOf(const QString &bundlePath) {
    return infoOf(bundlePath).value("CFBundleShortVersionString").toString();
}

// folder/name.app with the info dictionary (CFBundleExecutable defaults to
// the name) and, withExecutable, a copy of the program inside.
inline QString make(const QString &folder, const QString &name, QVariantMap info = {},
                    bool withExecutable = true, const QString &program = KV_TEST_CHILD) {
    const QString bundle = folder + "/" + name + ".app";
    if (!info.contains("CFBundleExecutable")) info.insert("CFBundleExecutable", name);
    QDir().mkpath(bundle + "/Contents/MacOS");
    QDir().mkpath(bundle + "/Contents/Resources");
    KVPropertyList::writeFile(info, bundle + "/Contents/Info.plist", KVPropertyList::Format::Xml);
    if (!withExecutable) return bundle;
    QFile::remove(executableOf(bundle));
    QFile::copy(program, executableOf(bundle));
    QFile::setPermissions(executableOf(bundle), QFile::permissions(program));
    return bundle;
}

// This test process's own: a run quits every copy with it, not other tests'.
inline QString productCode() {
    const char *digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    QString code = "R";
    for (int n = getpid(), i = 0; i < 3; ++i, n /= 62) code += QChar(digits[n % 62]);
    return code;
}

// where/Product.app running kvtest_product, with the code above and the version.
inline QString makeRoadProduct(const QString &where, const QString &version) {
    return make(where, "Product",
                {{"CFBundleSignature", productCode()},
                 {"CFBundleName", "Product"},
                 {"CFBundleIdentifier", "org.velmora.test.road"},
                 {"CFBundleShortVersionString", version}},
                true, KV_TEST_PRODUCT);
}

inline void stop(pid_t pid) { stopProcess(pid, SIGKILL); }
// Starts the program in its own process group and waits until it says it is
// ready; its pid or -1.
inline pid_t start(const QString &program, const QStringList &arguments = {}) {
    std::vector<std::string> words{QFile::encodeName(program).toStdString()};
    for (const QString &a : arguments) words.push_back(a.toLocal8Bit().toStdString());
    const ReadySpawn child = spawnReady(std::move(words), true);
    if (!child.ready) stop(child.pid);
    return child.ready ? child.pid : -1;
}

// Kills what runs at or below the path: launched copies have sessions of their own.
inline void stopProcessesAt(const QString &path) {
    for (const KVProcessRef &process : KVProcess::allProcesses())
        if (process->path().startsWith(path)) kill(process->unixPID(), SIGKILL);
}
// A process running the bundle (or executable); 0 when none does.
inline pid_t runningFrom(const QString &path) {
    for (const KVProcessRef &process : KVProcess::allProcesses())
        if (process->path() == path) return process->unixPID();
    return 0;
}
}  // namespace TestBundle
