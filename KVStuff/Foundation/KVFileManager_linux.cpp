#include <dirent.h>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <climits>
#include <memory>
#include <optional>
#include <vector>

#include "KVFileManager.h"
#include "KVFileManager_p.h"
#include "KVPath.h"

bool KVFileManager::isWritableFileAtPath(const QString &path) {
    return !path.isEmpty() && access(QFile::encodeName(path).constData(), W_OK) == 0;
}

QStringList KVFileManager::applicationDirectories(Domain domain) {
    if (domain == Domain::Local) return {QStringLiteral("/opt")};
    return {KVPath::stringByExpandingTildeInPath(QStringLiteral("~/Applications"))};
}

using KVFileManagerPlatform::FileDescriptor;

KVFileManagerPlatform::FileSystemIdentity::FileSystemIdentity(uid_t user, gid_t group)
    : m_active(user != uid_t(-1)) {
    if (!m_active) return;
    m_group = gid_t(setfsgid(group));
    m_user = uid_t(setfsuid(user));
    // setfsuid answers the previous identity, also when it refused: ask again.
    m_ok = uid_t(setfsuid(user)) == user && gid_t(setfsgid(group)) == group;
}

KVFileManagerPlatform::FileSystemIdentity::~FileSystemIdentity() {
    if (!m_active) return;
    setfsuid(m_user);
    setfsgid(m_group);
}

namespace {
// The entry names of the open folder in readdir order, without "." and
// "..". Takes the descriptor over.
std::optional<std::vector<QByteArray>> entryNames(int fd) {
    if (fd < 0) return std::nullopt;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(fdopendir(fd), closedir);
    if (!directory) {
        close(fd);
        return std::nullopt;
    }
    std::vector<QByteArray> names;
    errno = 0;
    while (const dirent *entry = readdir(directory.get())) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..") names.push_back(name);
        errno = 0;
    }
    if (errno != 0) return std::nullopt;
    return names;
}

// Runs query(buffer, size) with a buffer of the size that query(nullptr, 0)
// reports; the item may grow in between (ERANGE), so it asks again.
template <typename Query>
std::optional<std::vector<char>> readSized(Query query) {
    for (;;) {
        const ssize_t size = query(nullptr, 0);
        if (size < 0) return std::nullopt;
        // Most items have no attributes: one call tells.
        if (size == 0) return std::vector<char>();
        std::vector<char> buffer(size_t(size) + 1);
        const ssize_t read = query(buffer.data(), size_t(size));
        if (read >= 0) {
            buffer.resize(size_t(read));
            return buffer;
        }
        if (errno != ERANGE) return std::nullopt;
    }
}

// A file system without extended attributes, or a namespace only the system
// may write (trusted., security.), is no reason to fail a copy; losing a
// user's own attribute is.
bool isIgnorableAttributeError(const char *name, int error) {
    if (error == ENOTSUP) return true;
    return (error == EPERM || error == EACCES) && qstrncmp(name, "user.", 5) != 0;
}

// Reads the source with the reader's rights, when the options name one.
class ReadingAs : public KVFileManagerPlatform::FileSystemIdentity {
public:
    explicit ReadingAs(const KVFileManagerPlatform::CopyOptions &options)
        : FileSystemIdentity(options.readerUser, options.readerGroup) {}
};

// The link's target; null when it cannot be read. Kept out of the copy's
// frame, which a deep tree repeats.
QByteArray linkTarget(int folder, const QByteArray &name) {
    std::vector<char> buffer(PATH_MAX);
    const ssize_t length = readlinkat(folder, name.constData(), buffer.data(), buffer.size());
    if (length < 0 || size_t(length) >= buffer.size()) return {};
    return QByteArray(buffer.data(), length);
}

// Counts the folders the thread is inside of while walking a tree.
class Nesting {
public:
    Nesting() { ++t_depth; }
    ~Nesting() { --t_depth; }
    Nesting(const Nesting &) = delete;
    Nesting &operator=(const Nesting &) = delete;
    bool tooDeep() const { return t_depth > KVFileManagerPlatform::kMaximumDepth; }

private:
    static thread_local int t_depth;
};
thread_local int Nesting::t_depth = 0;

bool isCancelled(const KVFileManagerPlatform::CopyOptions &options) {
    return options.cancel && options.cancel->load();
}

bool copyExtendedAttributes(int source, int destination,
                            const KVFileManagerPlatform::CopyOptions &options) {
    std::optional<std::vector<char>> names;
    {
        const ReadingAs reader(options);
        if (!reader.ok()) return false;
        names =
            readSized([&](char *buffer, size_t size) { return flistxattr(source, buffer, size); });
    }
    if (!names) return errno == ENOTSUP;
    for (size_t start = 0; start < names->size();) {
        const char *name = names->data() + start;
        start += qstrlen(name) + 1;
        // Capabilities, security labels and access lists are the system's
        // to give, never the source's.
        if (options.restrictModes && qstrncmp(name, "user.", 5) != 0) continue;
        std::optional<std::vector<char>> value;
        {
            const ReadingAs reader(options);
            value = readSized(
                [&](char *buffer, size_t size) { return fgetxattr(source, name, buffer, size); });
        }
        if (!value) {
            if (errno == ENODATA) continue;  // removed since it was listed
            if (isIgnorableAttributeError(name, errno)) continue;
            return false;
        }
        if (fsetxattr(destination, name, value->data(), value->size(), 0) != 0 &&
            !isIgnorableAttributeError(name, errno))
            return false;
    }
    return true;
}

bool copyBytes(int in, int out) {
    // In-kernel copying (and sharing of extents where the file system can);
    // a read/write loop continues from where it stopped when it cannot.
    for (;;) {
        const ssize_t copied = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (copied == 0) return true;
        if (copied > 0) continue;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP &&
            errno != EBADF)
            return false;
        break;
    }
    std::vector<char> buffer(1 << 17);
    for (;;) {
        const ssize_t read = ::read(in, buffer.data(), buffer.size());
        if (read == 0) return true;
        if (read < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        for (ssize_t done = 0; done < read;) {
            const ssize_t written = write(out, buffer.data() + done, size_t(read - done));
            if (written < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            done += written;
        }
    }
}

mode_t modeToWrite(const struct stat &status, const KVFileManagerPlatform::CopyOptions &options) {
    mode_t mode = status.st_mode & 07777;
    if (options.restrictModes) mode &= ~mode_t(S_ISUID | S_ISGID | S_ISVTX | S_IWGRP | S_IWOTH);
    return mode;
}

// Attributes come last: writing a file clears its set-id bits, adding an
// entry changes a folder's times, and a read-only mode would stop the
// attributes from being written. The owner goes before the mode, as a change
// of owner clears set-id bits.
bool copyAttributes(int in, int out, const struct stat &status,
                    const KVFileManagerPlatform::CopyOptions &options) {
    if (!copyExtendedAttributes(in, out, options)) return false;
    if ((options.owner != uid_t(-1) || options.group != gid_t(-1)) &&
        fchown(out, options.owner, options.group) != 0)
        return false;
    if (fchmod(out, modeToWrite(status, options)) != 0) return false;
    const timespec times[2] = {status.st_atim, status.st_mtim};
    return futimens(out, times) == 0;
}

bool copyFileFrom(int in, const struct stat &status, int folder, const QByteArray &name,
                  const KVFileManagerPlatform::CopyOptions &options) {
    // Private until the copy is complete; the real mode is set afterwards.
    FileDescriptor out(openat(folder, name.constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.get() < 0) return false;
    return copyBytes(in, out.get()) && copyAttributes(in, out.get(), status, options) &&
           out.close();
}

bool copyLinkAt(const QByteArray &target, const struct stat &status, int folder,
                const QByteArray &name, const KVFileManagerPlatform::CopyOptions &options) {
    if (symlinkat(target.constData(), folder, name.constData()) != 0) return false;
    // Linux links have no mode of their own, and no user attributes.
    if ((options.owner != uid_t(-1) || options.group != gid_t(-1)) &&
        fchownat(folder, name.constData(), options.owner, options.group, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    const timespec times[2] = {status.st_atim, status.st_mtim};
    return utimensat(folder, name.constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool sameItem(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino &&
           (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

}  // namespace

bool KVFileManagerPlatform::copyItemAt(int sourceFolder, const QByteArray &sourceName,
                                       int destinationFolder, const QByteArray &destinationName,
                                       const CopyOptions &options) {
    if (isCancelled(options)) return false;
    // Taken before anything is read, which would change the access time.
    struct stat status;
    int opened = -1;
    QByteArray target;
    {
        const ReadingAs reader(options);
        if (!reader.ok() ||
            fstatat(sourceFolder, sourceName.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        switch (status.st_mode & S_IFMT) {
            case S_IFREG:
                // O_NONBLOCK: an item replaced by a FIFO since it was looked at
                // must not hang the copy; it is no longer the same item and fails.
                opened = openat(sourceFolder, sourceName.constData(),
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
                break;
            case S_IFDIR:
                opened = openat(sourceFolder, sourceName.constData(),
                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                break;
            case S_IFLNK:
                target = linkTarget(sourceFolder, sourceName);
                if (target.isNull()) return false;
                break;
            default:
                // FIFOs, devices and sockets: reading them could block for ever
                // and their contents are no file.
                return false;
        }
    }
    if (S_ISLNK(status.st_mode))
        return copyLinkAt(target, status, destinationFolder, destinationName, options);
    FileDescriptor in(opened);
    struct stat now;
    if (in.get() < 0 || fstat(in.get(), &now) != 0 || !sameItem(now, status)) return false;
    if (S_ISDIR(status.st_mode))
        return copyFolderAt(in.get(), destinationFolder, destinationName, options);
    return copyFileFrom(in.get(), status, destinationFolder, destinationName, options);
}

bool KVFileManagerPlatform::copyFolderAt(int source, int destinationFolder,
                                         const QByteArray &destinationName,
                                         const CopyOptions &options) {
    const Nesting nesting;
    struct stat status;
    if (nesting.tooDeep() || fstat(source, &status) != 0 || !S_ISDIR(status.st_mode)) return false;
    // Writable by the copier while it is filled, whatever the source's mode.
    if (mkdirat(destinationFolder, destinationName.constData(), 0700) != 0) return false;
    FileDescriptor out(openat(destinationFolder, destinationName.constData(),
                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // Another folder put in its place since it was made is not filled.
    struct stat made;
    if (out.get() < 0 || fstat(out.get(), &made) != 0 || made.st_uid != geteuid()) return false;
    std::optional<std::vector<QByteArray>> names;
    {
        const ReadingAs reader(options);
        if (reader.ok()) names = KVFileManagerPlatform::entryNamesAt(source);
    }
    if (!names) return false;
    for (const QByteArray &name : *names) {
        if (!copyItemAt(source, name, out.get(), name, options)) return false;
    }
    return copyAttributes(source, out.get(), status, options) && out.close();
}

bool KVFileManagerPlatform::removeItemAt(int folder, const QByteArray &name) {
    const Nesting nesting;
    struct stat status;
    if (nesting.tooDeep() || fstatat(folder, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (S_ISDIR(status.st_mode)) {
        // Everything that can go goes; whatever stays makes the last step fail.
        const FileDescriptor inner(
            openat(folder, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (inner.get() >= 0) {
            if (const auto names = KVFileManagerPlatform::entryNamesAt(inner.get())) {
                for (const QByteArray &entry : *names) removeItemAt(inner.get(), entry);
            }
        }
    }
    return unlinkat(folder, name.constData(), S_ISDIR(status.st_mode) ? AT_REMOVEDIR : 0) == 0;
}

bool KVFileManagerPlatform::changeOwnerAt(int folder, const QByteArray &name, uid_t user,
                                          gid_t group) {
    // The item as opened is the one changed, whatever takes its name meanwhile.
    const Nesting nesting;
    const FileDescriptor item(openat(folder, name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (nesting.tooDeep() || item.get() < 0 || fstat(item.get(), &status) != 0) return false;
    if (status.st_uid != geteuid()) return true;
    bool changed = true;
    if (S_ISDIR(status.st_mode)) {
        // Contents first: a folder handed over can no longer be trusted.
        const FileDescriptor inner(openat(item.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto names =
            inner.get() >= 0 ? KVFileManagerPlatform::entryNamesAt(inner.get()) : std::nullopt;
        if (!names) return false;
        for (const QByteArray &entry : *names)
            changed = changeOwnerAt(inner.get(), entry, user, group) && changed;
    } else if (status.st_nlink > 1) {
        // A file with other names may be someone else's, linked in: it stays theirs.
        return changed;
    }
    // The kernel clears the set-id bits of a file whose owner changes.
    return fchownat(item.get(), "", user, group, AT_EMPTY_PATH) == 0 && changed;
}

std::optional<std::vector<QByteArray>> KVFileManagerPlatform::entryNamesAt(int folder) {
    // Listed through a second descriptor, so that the caller's stays usable.
    return entryNames(fcntl(folder, F_DUPFD_CLOEXEC, 0));
}

bool KVFileManagerPlatform::copyItem(const QString &source, const QString &destination) {
    return copyItemAt(AT_FDCWD, QFile::encodeName(source), AT_FDCWD, QFile::encodeName(destination),
                      {});
}

bool KVFileManager::removeItemAtPath(const QString &path) {
    return !path.isEmpty() &&
           KVFileManagerPlatform::removeItemAt(AT_FDCWD, QFile::encodeName(path));
}

QStringList KVFileManager::contentsOfDirectoryAtPath(const QString &path) {
    QStringList contents;
    if (path.isEmpty()) return contents;
    // A listing goes where a link points.
    const int fd = open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (const auto names = entryNames(fd)) {
        for (const QByteArray &name : *names) contents << QFile::decodeName(name);
    }
    return contents;
}
