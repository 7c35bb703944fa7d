#include "TestEnvironment.h"

#include <QDir>
#include <QTemporaryDir>
#include <memory>

namespace {
std::unique_ptr<QTemporaryDir> s_root, s_installedRoot;
int s_counter = 0;

QString makeBelow(const QString &root, const QString &hint) {
    const QString path = QString("%1/%2-%3").arg(root, hint).arg(++s_counter);
    return QDir().mkpath(path) ? path : QString();
}
}  // namespace

void TestEnvironment::setUp() {
    s_root = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/kvtest-XXXXXX");
    // Qt wants a private runtime folder; one the caller chose stays.
    for (const auto &[variable, folder] : {std::pair{"HOME", "/home"},
                                           {"XDG_CONFIG_HOME", "/home/.config"},
                                           {"XDG_DATA_HOME", "/home/.local/share"},
                                           {"XDG_STATE_HOME", "/home/.local/state"},
                                           {"XDG_CACHE_HOME", "/home/.cache"},
                                           {"XDG_RUNTIME_DIR", "/run"}}) {
        if (variable == QLatin1String("XDG_RUNTIME_DIR") && !qEnvironmentVariableIsEmpty(variable))
            continue;
        QDir().mkpath(root() + folder);
        qputenv(variable, QFile::encodeName(root() + folder));
    }
    QFile::setPermissions(root() + "/run", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void TestEnvironment::tearDown() { s_root.reset(), s_installedRoot.reset(); }

QString TestEnvironment::root() { return s_root ? s_root->path() : QString(); }

QString TestEnvironment::makeTempDir(const QString &hint) {
    return makeBelow(root() + "/tmp", hint);
}

QString TestEnvironment::makeInstalledDir(const QString &hint) {
    if (!s_installedRoot)
        s_installedRoot = std::make_unique<QTemporaryDir>("/var/lib/kvtest-XXXXXX");
    return s_installedRoot->isValid() ? makeBelow(s_installedRoot->path(), hint) : QString();
}

bool TestEnvironment::writeFile(const QString &path, const QByteArray &bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
