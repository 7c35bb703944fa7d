// Real file trees for the copy, install and trash tests.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>

#include "TestEnvironment.h"

namespace TestFiles {

inline QByteArray local(const QString &path) { return QFile::encodeName(path); }

inline bool makeFile(const QString &path, const QByteArray &bytes, mode_t mode) {
    return TestEnvironment::writeFile(path, bytes) && chmod(local(path), mode) == 0;
}

inline bool makeLink(const QString &path, const QString &target) {
    return symlink(local(target), local(path)) == 0;
}

inline QStringList entries(const QString &folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

// folder/name.app with every kind of item a copy must keep; null if something was refused.
inline QString makeRichBundle(const QString &folder, const QString &name) {
    const QString bundle = folder + "/" + name + ".app", contents = bundle + "/Contents";
    const QString versions = contents + "/Frameworks/Kit.framework/Versions";
    // A period of 251 bytes never lines up with blocks, so a misplaced block shows.
    QByteArray large(3 * 1024 * 1024 + 17, '\0');
    for (qsizetype i = 0; i < large.size(); ++i) large[i] = char(i % 251);
    const auto setAttribute = [](const QString &path, const char *key, const QByteArray &value) {
        return lsetxattr(local(path), key, value.constData(), value.size(), 0) == 0;
    };
    const auto makeOld = [](const QString &path) {
        const timespec times[2] = {{900000000, 987654321}, {1000000000, 123456789}};
        return utimensat(AT_FDCWD, local(path), times, AT_SYMLINK_NOFOLLOW) == 0;
    };
    const bool made =
        makeFile(contents + "/Info.plist", "<plist/>", 0644) &&
        makeFile(contents + "/MacOS/" + name, large, 0755) &&
        makeFile(versions + "/A/Kit", "kit", 0755) && makeLink(versions + "/Current", "A") &&
        makeLink(versions + "/../Kit", "Versions/Current/Kit") &&
        makeFile(contents + "/Resources/.hidden", "h", 0600) &&
        makeLink(contents + "/Resources/absolute", contents + "/Info.plist") &&
        makeLink(contents + "/Resources/dangling", "../nowhere") &&
        makeFile(contents + "/Private/Résumé ü", "é", 0644) &&
        chmod(local(contents + "/Private"), 0700) == 0 &&
        setAttribute(contents + "/MacOS/" + name, "user.kv.origin", "test") &&
        setAttribute(contents + "/Resources", "user.kv.binary", QByteArray("\0\1\xff", 3)) &&
        // Times last: adding entries changes a folder's times.
        makeOld(contents + "/Info.plist") && makeOld(versions + "/A") &&
        makeOld(versions + "/Current") && makeOld(contents + "/Resources");
    return made ? bundle : QString();
}

// The marker in its Info.plist tells copies apart.
inline QString makeProduct(const QString &path, const QByteArray &marker) {
    const bool made = makeFile(path + "/Contents/Info.plist", marker, 0644) &&
                      makeFile(path + "/Contents/MacOS/Product", "#!/bin/sh\n", 0755);
    return made ? path : QString();
}

inline QByteArray markerOf(const QString &productPath) {
    QFile file(productPath + "/Contents/Info.plist");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
}

// One sorted line per item: equal snapshots are equal copies. Copying may change
// the source's access times: snapshot it before. Security labels belong to a place.
inline QStringList snapshot(const QString &root, const QString &relative = ".") {
    const QByteArray path = local(root);
    const auto quiet = [&](int f) { return open(path, f | O_NOATIME | O_NOFOLLOW | O_CLOEXEC); };
    const auto bytes = [](const char *d, ssize_t n) { return QByteArray(d, qMax<ssize_t>(n, 0)); };
    struct stat status;
    if (lstat(path, &status) != 0) return {relative + " missing"};
    const auto time = [](timespec t) { return QString::number(t.tv_sec * 1000000000 + t.tv_nsec); };
    QString line =
        relative + " mode=" + QString::number(status.st_mode, 8) + " mtime=" + time(status.st_mtim);
    char buffer[4096], value[4096];
    if (S_ISLNK(status.st_mode))
        line += " -> " + QFile::decodeName(bytes(buffer, readlink(path, buffer, 4096)));
    else
        line += " atime=" + time(status.st_atim);
    QFile file;
    if (S_ISREG(status.st_mode) &&
        file.open(quiet(O_RDONLY), QIODevice::ReadOnly, QFile::AutoCloseHandle))
        line += QString(" size=%1 sha256=").arg(status.st_size) +
                QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex();
    const ssize_t size = llistxattr(path, buffer, sizeof buffer);
    for (const char *key = buffer; key < buffer + size; key += qstrlen(key) + 1)
        if (qstrncmp(key, "security.", 9) != 0)
            line +=
                QString(" %1=").arg(key) + bytes(value, lgetxattr(path, key, value, 4096)).toHex();
    QStringList lines{line};
    DIR *folder = S_ISDIR(status.st_mode) ? fdopendir(quiet(O_DIRECTORY)) : nullptr;
    while (const dirent *entry = folder ? readdir(folder) : nullptr) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != "." && name != "..")
            lines += snapshot(root + "/" + name, relative + "/" + name);
    }
    if (folder) closedir(folder);
    lines.sort();
    return lines;
}

}  // namespace TestFiles
