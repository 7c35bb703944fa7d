#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <cstdlib>
#include <memory>

namespace {
std::unique_ptr<QTemporaryDir> s_root;
std::unique_ptr<QTemporaryDir> s_installedRoot;
int s_counter = 0;

void pointAt(const char *variable, const QString &folder) {
    QDir().mkpath(folder);
    qputenv(variable, QFile::encodeName(folder));
}
}  // namespace

void TestEnvironment::setUp() {
    s_root = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/kvtest-XXXXXX");
    const QString base = s_root->path();
    pointAt("HOME", base + "/home");
    pointAt("XDG_CONFIG_HOME", base + "/home/.config");
    pointAt("XDG_DATA_HOME", base + "/home/.local/share");
    pointAt("XDG_STATE_HOME", base + "/home/.local/state");
    pointAt("XDG_CACHE_HOME", base + "/home/.cache");
    // Qt wants a private runtime folder; keep one the caller chose (a sound
    // server may live there).
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
        pointAt("XDG_RUNTIME_DIR", base + "/run");
        QFile::setPermissions(base + "/run",
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
}

void TestEnvironment::tearDown() {
    s_root.reset();
    s_installedRoot.reset();
}

QString TestEnvironment::root() { return s_root ? s_root->path() : QString(); }

QString TestEnvironment::makeTempDir(const QString &hint) {
    const QString path = QString("%1/tmp/%2-%3").arg(root(), hint).arg(++s_counter);
    QDir().mkpath(path);
    return path;
}

QString TestEnvironment::makeInstalledDir(const QString &hint) {
    if (!s_installedRoot)
        s_installedRoot = std::make_unique<QTemporaryDir>(QStringLiteral("/var/lib/kvtest-XXXXXX"));
    if (!s_installedRoot->isValid()) return QString();
    const QString path = QString("%1/%2-%3").arg(s_installedRoot->path(), hint).arg(++s_counter);
    QDir().mkpath(path);
    return path;
}

bool TestEnvironment::writeFile(const QString &path, const QByteArray &bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
