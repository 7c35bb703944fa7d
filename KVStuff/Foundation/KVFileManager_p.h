// What KVFileManager needs from the operating system, and the descriptor-based
// tree operations that the installation shares with it. Every item below a
// folder is reached relative to that folder's open descriptor and never
// through a symbolic link, so renaming or linking things during an operation
// cannot lead it elsewhere.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <atomic>
#include <optional>
#include <vector>

namespace KVFileManagerPlatform {
// An open descriptor, closed when it goes.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    FileDescriptor(FileDescriptor &&other) noexcept : m_fd(other.release()) {}
    FileDescriptor &operator=(FileDescriptor &&other) noexcept {
        if (this != &other) {
            if (m_fd >= 0) ::close(m_fd);
            m_fd = other.release();
        }
        return *this;
    }
    int get() const { return m_fd; }
    int release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // Closes now: a failing close() can be the first report of a failed write.
    bool close() { return ::close(release()) == 0; }

private:
    int m_fd;
};

// The calling thread's file-system identity switched to the user's (unless
// -1) for the object's lifetime. Switching away from root drops root's
// file-system capabilities with it, so root then opens, lists and reads
// with exactly that user's rights.
class FileSystemIdentity {
public:
    FileSystemIdentity(uid_t user, gid_t group);
    ~FileSystemIdentity();
    FileSystemIdentity(const FileSystemIdentity &) = delete;
    FileSystemIdentity &operator=(const FileSystemIdentity &) = delete;
    bool ok() const { return m_ok; }

private:
    bool m_active;
    bool m_ok = true;
    uid_t m_user = 0;
    gid_t m_group = 0;
};

// Folders nested deeper than this are not walked: a hostile tree must not
// exhaust the stack of whoever copies, removes or hands it over.
inline constexpr int kMaximumDepth = 256;

// The copy itself; the arguments have been checked by copyItemAtPath.
bool copyItem(const QString &source, const QString &destination);

// How a copy treats what it reads and writes. The defaults copy everything
// as it is, as the current user.
struct CopyOptions {
    // For a copy made with more rights than the source's owner has: set-id
    // and sticky bits and write permission for group and others are cleared,
    // only user.* extended attributes are copied.
    bool restrictModes = false;
    // Given to every item written (unless -1).
    uid_t owner = uid_t(-1);
    gid_t group = gid_t(-1);
    // The file-system identity under which every item of the source is
    // opened, listed and read (unless -1); the copy writes as the caller.
    uid_t readerUser = uid_t(-1);
    gid_t readerGroup = gid_t(-1);
    // Set by another thread to stop the copy between two items.
    const std::atomic<bool> *cancel = nullptr;
};

// Copies sourceName in sourceFolder (a symbolic link is copied as a link) to
// destinationName in destinationFolder, which must not exist. The folders are
// open descriptors or AT_FDCWD with paths as names. What was written stays
// when the copy fails.
bool copyItemAt(int sourceFolder, const QByteArray &sourceName, int destinationFolder,
                const QByteArray &destinationName, const CopyOptions &options);
// Copies the contents and attributes of the open folder source to a new
// folder destinationName in destinationFolder.
bool copyFolderAt(int source, int destinationFolder, const QByteArray &destinationName,
                  const CopyOptions &options);
// Removes the item, a folder with everything in it, never following a link.
bool removeItemAt(int folder, const QByteArray &name);
// The entry names of the open folder, without "." and "..".
std::optional<std::vector<QByteArray>> entryNamesAt(int folder);
// Gives the item and everything in it that the caller owns to the user,
// never following a link and never entering a folder the caller does not
// own (its entries could change meanwhile); set-id bits are cleared, and a
// file with more than one name stays whose it is.
bool changeOwnerAt(int folder, const QByteArray &name, uid_t user, gid_t group);
}  // namespace KVFileManagerPlatform
