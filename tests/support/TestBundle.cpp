#include "TestBundle.h"

#include <QDir>
#include <QFile>

#include "KVProcess.h"
#include "Spawn.h"

namespace {
void copyProgram(const QString &program, const QString &path) {
    QFile::remove(path);
    QFile::copy(program, path);
    QFile::setPermissions(path, QFile::permissions(program));
}

QVariantMap infoOf(const QString &bundlePath) {
    return KVPropertyList::fromFile(bundlePath + "/Contents/Info.plist").toMap();
}
}  // namespace

QString TestBundle::make(const QString &folder, const QString &name, QVariantMap info,
                         bool withExecutable, KVPropertyList::Format format) {
    const QString bundle = folder + "/" + name + ".app";
    if (!info.contains("CFBundleExecutable")) info.insert("CFBundleExecutable", name);
    QDir().mkpath(bundle + "/Contents/MacOS");
    QDir().mkpath(bundle + "/Contents/Resources");
    KVPropertyList::writeFile(info, bundle + "/Contents/Info.plist", format);
    if (withExecutable)
        copyProgram(KV_TEST_CHILD,
                    bundle + "/Contents/MacOS/" + info.value("CFBundleExecutable").toString());
    return bundle;
}

QString TestBundle::makeProduct(const QString &folder, const QString &name,
                                const QVariantMap &info) {
    const QString bundle = make(folder, name, info, false);
    copyProgram(KV_TEST_PRODUCT, executableOf(bundle));
    return bundle;
}

QString TestBundle::executableOf(const QString &bundlePath) {
    return bundlePath + "/Contents/MacOS/" +
           infoOf(bundlePath).value("CFBundleExecutable").toString();
}

QString TestBundle::productCode() {
    const char *digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    QString code = "R";
    for (int n = getpid(), i = 0; i < 3; ++i, n /= 62) code += QChar(digits[n % 62]);
    return code;
}

QString TestBundle::makeRoadProduct(const QString &where, const QString &version) {
    return makeProduct(where, "Product",
                       {{"CFBundleSignature", productCode()},
                        {"CFBundleName", "Product"},
                        {"CFBundleIdentifier", "org.velmora.test.road"},
                        {"CFBundleShortVersionString", version}});
}

QString TestBundle::versionOf(const QString &bundlePath) {
    return infoOf(bundlePath).value("CFBundleShortVersionString").toString();
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

void TestBundle::stop(pid_t pid) { stopProcess(pid, SIGKILL); }
