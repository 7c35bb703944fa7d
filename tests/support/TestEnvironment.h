// Each test process has its own HOME and XDG folders: none touches the real home.
#pragma once

#include <QDir>
#include <QTemporaryDir>
#include <memory>

#include "QtPrinters.h"

namespace TestEnvironment {
inline std::unique_ptr<QTemporaryDir> s_root, s_installedRoot;

inline QString root() { return s_root ? s_root->path() : QString(); }

inline void setUp() {
    s_root = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/kvtest-XXXXXX");
    // clang-format off
    for (const auto &[variable, folder] : {std::pair{"HOME", "/home"},
            {"XDG_CONFIG_HOME", "/home/.config"}, {"XDG_DATA_HOME", "/home/.local/share"},
            {"XDG_STATE_HOME", "/home/.local/state"}, {"XDG_CACHE_HOME", "/home/.cache"},
            {"XDG_RUNTIME_DIR", "/run"}}) {
        // clang-format on
        // Qt wants a private runtime folder; one the caller chose stays.
        if (QLatin1String(variable) == "XDG_RUNTIME_DIR" && !qEnvironmentVariableIsEmpty(variable))
            continue;
        QDir().mkpath(root() + folder);
        qputenv(variable, QFile::encodeName(root() + folder));
    }
    QFile::setPermissions(root() + "/run", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

inline void tearDown() { s_root.reset(), s_installedRoot.reset(); }

inline QString makeTempDir(const QString &hint, const QString &below = root() + "/tmp") {
    static int counter = 0;
    const QString path = QString("%1/%2-%3").arg(below, hint).arg(++counter);
    return QDir().mkpath(path) ? path : QString();
}

// The same outside /tmp (in /var/lib, so root only), for copies the installer
// is to take as installed: it passes over any under /tmp. Null on failure.
inline QString makeInstalledDir(const QString &hint) {
    if (!s_installedRoot)
        s_installedRoot = std::make_unique<QTemporaryDir>("/var/lib/kvtest-XXXXXX");
    return s_installedRoot->isValid() ? makeTempDir(hint, s_installedRoot->path()) : QString();
}

// The whole file; empty when it cannot be read.
inline QByteArray readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool writeFile(const QString &path, const QByteArray &bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
}  // namespace TestEnvironment
