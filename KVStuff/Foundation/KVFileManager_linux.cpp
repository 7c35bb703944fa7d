#include <dirent.h>
#include <fcntl.h>
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

namespace {
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return m_fd; }
    // Closes now: a failing close() can be the first report of a failed write.
    bool close() {
        const int fd = m_fd;
        m_fd = -1;
        return ::close(fd) == 0;
    }

private:
    int m_fd;
};

QByteArray child(const QByteArray &folder, const QByteArray &name) {
    return folder.endsWith('/') ? folder + name : folder + '/' + name;
}

// The folder's entry names in readdir order, without "." and "..". A copy
// or removal has looked at the item itself and must not be led elsewhere by
// a link put there since; a listing goes where a link points.
enum class Links { Follow, DoNotFollow };
std::optional<std::vector<QByteArray>> entryNames(const QByteArray &folder, Links links) {
    const int flags =
        O_RDONLY | O_DIRECTORY | O_CLOEXEC | (links == Links::Follow ? 0 : O_NOFOLLOW);
    const int fd = open(folder.constData(), flags);
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

bool copyExtendedAttributes(const char *source, const char *destination) {
    const auto names =
        readSized([&](char *buffer, size_t size) { return llistxattr(source, buffer, size); });
    if (!names) return errno == ENOTSUP;
    for (size_t start = 0; start < names->size();) {
        const char *name = names->data() + start;
        start += qstrlen(name) + 1;
        const auto value = readSized(
            [&](char *buffer, size_t size) { return lgetxattr(source, name, buffer, size); });
        if (!value) {
            if (errno == ENODATA) continue;  // removed since it was listed
            if (isIgnorableAttributeError(name, errno)) continue;
            return false;
        }
        if (lsetxattr(destination, name, value->data(), value->size(), 0) != 0 &&
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

bool copyFile(const QByteArray &source, const QByteArray &destination) {
    // O_NONBLOCK: an item replaced by a FIFO since it was looked at must not
    // hang the copy; it is no regular file and fails below.
    FileDescriptor in(open(source.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (in.get() < 0 || fstat(in.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    // Private until the copy is complete; the real mode is set afterwards.
    FileDescriptor out(
        open(destination.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.get() < 0) return false;
    return copyBytes(in.get(), out.get()) && out.close();
}

bool copyLink(const QByteArray &source, const QByteArray &destination) {
    char target[PATH_MAX];
    const ssize_t length = readlink(source.constData(), target, sizeof target);
    if (length < 0 || size_t(length) >= sizeof target) return false;
    target[length] = '\0';
    return symlink(target, destination.constData()) == 0;
}

bool copyItem(const QByteArray &source, const QByteArray &destination);

bool copyFolder(const QByteArray &source, const QByteArray &destination) {
    // Writable by the copier while it is filled, whatever the source's mode.
    if (mkdir(destination.constData(), 0700) != 0) return false;
    const auto names = entryNames(source, Links::DoNotFollow);
    if (!names) return false;
    for (const QByteArray &name : *names) {
        if (!copyItem(child(source, name), child(destination, name))) return false;
    }
    return true;
}

// Attributes come last: writing a file clears its set-id bits, adding an
// entry changes a folder's times, and a read-only mode would stop the
// attributes from being written.
bool copyAttributes(const QByteArray &source, const QByteArray &destination,
                    const struct stat &status) {
    if (!copyExtendedAttributes(source.constData(), destination.constData())) return false;
    // Linux links have no mode of their own.
    if (!S_ISLNK(status.st_mode) &&
        fchmodat(AT_FDCWD, destination.constData(), status.st_mode & 07777, 0) != 0)
        return false;
    const timespec times[2] = {status.st_atim, status.st_mtim};
    return utimensat(AT_FDCWD, destination.constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool copyItem(const QByteArray &source, const QByteArray &destination) {
    // Taken before anything is read, which would change the access time.
    struct stat status;
    if (lstat(source.constData(), &status) != 0) return false;
    bool copied = false;
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            copied = copyFile(source, destination);
            break;
        case S_IFLNK:
            copied = copyLink(source, destination);
            break;
        case S_IFDIR:
            copied = copyFolder(source, destination);
            break;
        default:
            // FIFOs, devices and sockets: reading them could block for ever and
            // their contents are no file.
            return false;
    }
    return copied && copyAttributes(source, destination, status);
}

bool removeItem(const QByteArray &path) {
    struct stat status;
    if (lstat(path.constData(), &status) != 0) return false;
    if (!S_ISDIR(status.st_mode)) return unlink(path.constData()) == 0;
    // Everything that can go goes; whatever stays makes rmdir fail.
    if (const auto names = entryNames(path, Links::DoNotFollow)) {
        for (const QByteArray &name : *names) removeItem(child(path, name));
    }
    return rmdir(path.constData()) == 0;
}
}  // namespace

bool KVFileManagerPlatform::copyItem(const QString &source, const QString &destination) {
    return ::copyItem(QFile::encodeName(source), QFile::encodeName(destination));
}

bool KVFileManager::removeItemAtPath(const QString &path) {
    return !path.isEmpty() && removeItem(QFile::encodeName(path));
}

QStringList KVFileManager::contentsOfDirectoryAtPath(const QString &path) {
    QStringList contents;
    if (path.isEmpty()) return contents;
    if (const auto names = entryNames(QFile::encodeName(path), Links::Follow)) {
        for (const QByteArray &name : *names) contents << QFile::decodeName(name);
    }
    return contents;
}
