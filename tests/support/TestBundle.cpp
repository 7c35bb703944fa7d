#include "TestBundle.h"

#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <csignal>
#include <vector>

#include "KVProcess.h"
#include "ReadySpawn.h"

namespace {
QString makeBundle(const QString &folder, const QString &name, QVariantMap info,
                   const char *program, KVPropertyList::Format format) {
    const QString bundle = folder + "/" + name + ".app";
    if (!info.contains("CFBundleExecutable")) info.insert("CFBundleExecutable", name);
    QDir().mkpath(bundle + "/Contents/MacOS");
    QDir().mkpath(bundle + "/Contents/Resources");
    KVPropertyList::writeFile(info, bundle + "/Contents/Info.plist", format);
    if (program) {
        const QString exe =
            bundle + "/Contents/MacOS/" + info.value("CFBundleExecutable").toString();
        QFile::remove(exe);
        QFile::copy(program, exe);
        QFile::setPermissions(exe, QFile::permissions(program));
    }
    return bundle;
}
}  // namespace

QString TestBundle::make(const QString &folder, const QString &name, QVariantMap info,
                         bool withExecutable, KVPropertyList::Format format) {
    return makeBundle(folder, name, info, withExecutable ? KV_TEST_CHILD : nullptr, format);
}

QString TestBundle::makeProduct(const QString &folder, const QString &name,
                                const QVariantMap &info) {
    return makeBundle(folder, name, info, KV_TEST_PRODUCT, KVPropertyList::Format::Xml);
}

QString TestBundle::executableOf(const QString &bundlePath) {
    const QVariantMap info = KVPropertyList::fromFile(bundlePath + "/Contents/Info.plist").toMap();
    return bundlePath + "/Contents/MacOS/" + info.value("CFBundleExecutable").toString();
}

pid_t TestBundle::start(const QString &program, const QStringList &arguments) {
    std::vector<std::string> words{QFile::encodeName(program).toStdString()};
    for (const QString &a : arguments) words.push_back(a.toLocal8Bit().toStdString());
    const ReadySpawn child = spawnReady(std::move(words), true);
    if (child.ready) return child.pid;
    stop(child.pid);
    return -1;
}

void TestBundle::stopProcessesAt(const QString &path) {
    for (const KVProcessRef &process : KVProcess::allProcesses())
        if (process->path().startsWith(path)) kill(process->unixPID(), SIGKILL);
}

pid_t TestBundle::runningFrom(const QString &path) {
    for (const KVProcessRef &process : KVProcess::allProcesses())
        if (process->path() == path) return process->unixPID();
    return 0;
}

void TestBundle::stop(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}
