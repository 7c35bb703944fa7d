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
#include <algorithm>

#include "TestEnvironment.h"

namespace TestFiles {

inline QByteArray local(const QString &path) { return QFile::encodeName(path); }

inline bool makeFile(const QString &path, const QByteArray &bytes, mode_t mode) {
    return TestEnvironment::writeFile(path, bytes) && chmod(local(path).constData(), mode) == 0;
}

inline bool makeLink(const QString &path, const QString &target) {
    return symlink(local(target).constData(), local(path).constData()) == 0;
}

inline QStringList entries(const QString &folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

// folder/name.app with every kind of item a copy must keep: relative, absolute
// and dangling links, private, hidden, non-ASCII and multi-megabyte files, old
// nanosecond times and user.* attributes. Null when something was refused.
inline QString makeRichBundle(const QString &folder, const QString &name) {
    const QString contents = folder + "/" + name + ".app/Contents";
    const QString versions = contents + "/Frameworks/Kit.framework/Versions";
    // A period of 251 bytes never lines up with blocks, so a misplaced block shows.
    QByteArray large(3 * 1024 * 1024 + 17, '\0');
    for (qsizetype i = 0; i < large.size(); ++i) large[i] = char(i % 251);
    const auto setAttribute = [](const QString &path, const char *key, const QByteArray &value) {
        return lsetxattr(local(path).constData(), key, value.constData(), value.size(), 0) == 0;
    };
    const auto makeOld = [](const QString &path) {
        const timespec times[2] = {{900000000, 987654321}, {1000000000, 123456789}};
        return utimensat(AT_FDCWD, local(path).constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
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
        chmod(local(contents + "/Private").constData(), 0700) == 0 &&
        setAttribute(contents + "/MacOS/" + name, "user.kv.origin", "test") &&
        setAttribute(contents + "/Resources", "user.kv.binary", QByteArray("\0\1\xff", 3)) &&
        // Times last: adding entries changes a folder's times.
        makeOld(contents + "/Info.plist") && makeOld(versions + "/A") &&
        makeOld(versions + "/Current") && makeOld(contents + "/Resources");
    return made ? folder + "/" + name + ".app" : QString();
}

// A small product bundle whose Info.plist holds the marker, which tells copies apart.
inline QString makeProduct(const QString &path, const QByteArray &marker) {
    const bool made = makeFile(path + "/Contents/Info.plist", marker, 0644) &&
                      makeFile(path + "/Contents/MacOS/Product", "#!/bin/sh\n", 0755);
    return made ? path : QString();
}

inline QByteArray markerOf(const QString &productPath) {
    QFile file(productPath + "/Contents/Info.plist");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
}

namespace detail {
inline void describe(const QString &path, const QString &relative, QStringList &lines) {
    const QByteArray bytes = local(path);
    // O_NOATIME: a snapshot must not change the access times it records.
    const auto openQuietly = [&](int flags) {
        return open(bytes.constData(), flags | O_NOATIME | O_NOFOLLOW | O_CLOEXEC);
    };
    struct stat status;
    if (lstat(bytes.constData(), &status) != 0) return void(lines << relative + " missing");
    const auto nanoseconds = [](timespec t) { return qint64(t.tv_sec) * 1000000000 + t.tv_nsec; };
    // The mode in octal shows the type too (10 file, 4 folder, 12 link).
    QString line = QString("%1 mode=%2 mtime=%3")
                       .arg(relative)
                       .arg(status.st_mode, 0, 8)
                       .arg(nanoseconds(status.st_mtim));
    char buffer[4096];
    if (S_ISLNK(status.st_mode)) {
        // Reading a link may change its access time: not recorded.
        const ssize_t length = readlink(bytes.constData(), buffer, sizeof buffer);
        line += " -> " + QFile::decodeName(QByteArray(buffer, std::max<ssize_t>(length, 0)));
    } else {
        line += QString(" atime=%1").arg(nanoseconds(status.st_atim));
    }
    if (S_ISREG(status.st_mode)) {
        QFile file;
        file.open(openQuietly(O_RDONLY), QIODevice::ReadOnly, QFile::AutoCloseHandle);
        QCryptographicHash hash(QCryptographicHash::Sha256);
        hash.addData(&file);
        line += QString(" size=%1 sha256=%2").arg(status.st_size).arg(hash.result().toHex());
    }
    const ssize_t size = llistxattr(bytes.constData(), buffer, sizeof buffer);
    for (ssize_t start = 0; start < size; start += qstrlen(buffer + start) + 1) {
        // Security labels belong to a place, not to the item.
        if (qstrncmp(buffer + start, "security.", 9) == 0) continue;
        char value[4096];
        const ssize_t length = lgetxattr(bytes.constData(), buffer + start, value, sizeof value);
        line += QString(" %1=%2").arg(buffer + start,
                                      QByteArray(value, std::max<ssize_t>(length, 0)).toHex());
    }
    lines << line;
    DIR *directory = S_ISDIR(status.st_mode) ? fdopendir(openQuietly(O_DIRECTORY)) : nullptr;
    while (const dirent *entry = directory ? readdir(directory) : nullptr) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != "." && name != "..") describe(path + "/" + name, relative + "/" + name, lines);
    }
    if (directory) closedir(directory);
}
}  // namespace detail

// One line per item below root ("."), sorted: type, mode, times, link target or
// size and SHA-256, and attributes. Equal snapshots are equal copies. Copying
// may change the source's access times: snapshot it beforehand.
inline QStringList snapshot(const QString &root) {
    QStringList lines;
    detail::describe(root, ".", lines);
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Items made immutable (chattr +i) and freed again when the test ends, so that
// its folders can be removed. lock() needs root and a file system with the flag.
class ImmutableItems {
public:
    ~ImmutableItems() {
        for (const QString &path : m_paths) QProcess::execute("chattr", {"-i", path});
    }
    bool lock(const QString &path) {
        return QProcess::execute("chattr", {"+i", path}) == 0 && (m_paths << path, true);
    }

private:
    QStringList m_paths;
};

}  // namespace TestFiles
