#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "InstallFunction_p.h"
#include "KVFileManager.h"
#include "KVFileManager_p.h"
#include "KVLog.h"
#include "KVWorkspace.h"

using namespace InstallPlatform;
using KVFileManagerPlatform::CopyOptions;

namespace {
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The user's file-system identity, when the rights name a user other than
// the process itself.
class AsUser : public KVFileManagerPlatform::FileSystemIdentity {
public:
    explicit AsUser(const InstallRights &rights) : FileSystemIdentity(rights.user, rights.group) {}
};

bool statAt(int folder, const char *name, struct stat *status, int flags = AT_SYMLINK_NOFOLLOW) {
    return fstatat(folder, name, status, flags | (*name ? 0 : AT_EMPTY_PATH)) == 0;
}

bool sameInode(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the folder is the item or lies anywhere below it, walking up
// through "..", which no link can divert.
bool isAtOrBelow(int folder, const struct stat &item) {
    FileDescriptor current(fcntl(folder, F_DUPFD_CLOEXEC, 0));
    for (int depth = 0; current.get() >= 0 && depth < 4096; ++depth) {
        struct stat here, parent;
        if (!statAt(current.get(), "", &here)) return false;
        if (sameInode(here, item)) return true;
        FileDescriptor up(openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (up.get() < 0 || !statAt(up.get(), "", &parent) || sameInode(parent, here)) return false;
        current = std::move(up);
    }
    return false;
}

// The owner and rights that the items written into the folder get.
CopyOptions copyOptions(const Place &place, const InstallRights &rights,
                        const std::atomic<bool> *cancel) {
    CopyOptions options;
    options.cancel = cancel;
    options.readerUser = rights.user;
    options.readerGroup = rights.group;
    options.restrictModes = rights.restricted;
    struct stat folder;
    if (rights.restricted && statAt(place.folder.get(), "", &folder)) {
        // Root's folders get root's items; a user's folder gets that user's.
        options.owner = folder.st_uid;
        options.group = folder.st_gid;
    }
    return options;
}

// ---------------------------------------------------------------------------
// The invoking user's trash, on the volume of the item, per the freedesktop
// rules: the home trash when it is on that volume, else the volume's
// .Trash-UID. Folders the user controls are made and entered as the user.

std::optional<FileDescriptor> openOrMakeFolderAt(int folder, const char *name, mode_t mode) {
    if (mkdirat(folder, name, mode) != 0 && errno != EEXIST) return std::nullopt;
    FileDescriptor fd(openat(folder, name, kFolderFlags));
    if (fd.get() < 0) return std::nullopt;
    return fd;
}

struct Trash {
    FileDescriptor files;
    FileDescriptor info;
    QByteArray top;  // the volume's top for a volume trash, empty for the home trash
};

// files/ and info/ in the trash folder, as the user, who must own both.
std::optional<Trash> openTrashParts(int trash, const InstallRights &rights, const QByteArray &top) {
    const AsUser user(rights);
    if (!user.ok()) return std::nullopt;
    auto files = openOrMakeFolderAt(trash, "files", 0700);
    auto info = openOrMakeFolderAt(trash, "info", 0700);
    struct stat a, b;
    if (!files || !info || !statAt(files->get(), "", &a) || !statAt(info->get(), "", &b) ||
        a.st_uid != rights.user || b.st_uid != rights.user)
        return std::nullopt;
    return Trash{std::move(*files), std::move(*info), top};
}

std::optional<Trash> homeTrash(const struct stat &volume, const InstallRights &rights) {
    if (rights.home.isEmpty()) return std::nullopt;
    const AsUser user(rights);
    if (!user.ok()) return std::nullopt;
    FileDescriptor current(open(rights.home.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const char *name : {".local", "share", "Trash"}) {
        if (current.get() < 0) return std::nullopt;
        auto next = openOrMakeFolderAt(current.get(), name, 0700);
        if (!next) return std::nullopt;
        current = std::move(*next);
    }
    struct stat trash;
    if (!statAt(current.get(), "", &trash) || trash.st_dev != volume.st_dev ||
        trash.st_uid != rights.user)
        return std::nullopt;
    return openTrashParts(current.get(), rights, {});
}

std::optional<Trash> volumeTrash(int folder, const InstallRights &rights) {
    // The volume's top: the last folder up from the item on the same device.
    FileDescriptor top(fcntl(folder, F_DUPFD_CLOEXEC, 0));
    QByteArrayList names;
    for (;;) {
        struct stat here, parent;
        FileDescriptor up(openat(top.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (up.get() < 0 || !statAt(top.get(), "", &here) || !statAt(up.get(), "", &parent))
            return std::nullopt;
        if (here.st_dev != parent.st_dev || sameInode(here, parent)) break;
        top = std::move(up);
    }
    char path[PATH_MAX];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(top.get());
    const ssize_t length = readlink(link.constData(), path, sizeof path - 1);
    if (length <= 0) return std::nullopt;
    const QByteArray name = ".Trash-" + QByteArray::number(rights.user);
    // Made as the user, where the user may make it; one that is a link or
    // not the user's own is never used.
    const AsUser user(rights);
    if (!user.ok()) return std::nullopt;
    const std::optional<FileDescriptor> trash =
        openOrMakeFolderAt(top.get(), name.constData(), 0700);
    struct stat status;
    if (!trash || !statAt(trash->get(), "", &status) || status.st_uid != rights.user ||
        (status.st_mode & 0777) != 0700)
        return std::nullopt;
    return openTrashParts(trash->get(), rights, QByteArray(path, length));
}

// Whether the user could read the item and everything in it: only then may
// the user have it.
bool isReadableBy(int folder, const QByteArray &name, const InstallRights &rights, int depth = 0) {
    const AsUser user(rights);
    struct stat status;
    if (!user.ok() || depth > KVFileManagerPlatform::kMaximumDepth ||
        !statAt(folder, name.constData(), &status))
        return false;
    if (S_ISLNK(status.st_mode)) return true;
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return false;
    const FileDescriptor item(openat(folder, name.constData(),
                                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC |
                                         (S_ISDIR(status.st_mode) ? O_DIRECTORY : 0)));
    if (item.get() < 0) return false;
    if (S_ISREG(status.st_mode)) return true;
    const auto names = KVFileManagerPlatform::entryNamesAt(item.get());
    if (!names) return false;
    for (const QByteArray &entry : *names) {
        if (!isReadableBy(item.get(), entry, rights, depth + 1)) return false;
    }
    return true;
}

bool moveToUsersTrash(const Place &place, const InstallRights &rights) {
    // What the user could not read stays out of the user's hands.
    struct stat folder;
    if (!isReadableBy(place.folder.get(), place.name, rights) ||
        !statAt(place.folder.get(), "", &folder))
        return false;
    std::optional<Trash> trash = homeTrash(folder, rights);
    if (!trash) trash = volumeTrash(place.folder.get(), rights);
    if (!trash) return false;
    QByteArray original = QFile::encodeName(place.path);
    if (!trash->top.isEmpty() && original.startsWith(trash->top + "/"))
        original = original.mid(trash->top.size() + 1);
    const QByteArray info =
        "[Trash Info]\nPath=" + original.toPercentEncoding("/") + "\nDeletionDate=" +
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")).toLatin1() +
        "\n";
    for (int attempt = 1; attempt < 1000; ++attempt) {
        const QByteArray name =
            attempt == 1 ? place.name : place.name + "." + QByteArray::number(attempt);
        const QByteArray infoName = name + ".trashinfo";
        {
            // The information file is the user's, made as the user.
            const AsUser user(rights);
            FileDescriptor out(openat(trash->info.get(), infoName.constData(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (out.get() < 0) {
                if (errno == EEXIST) continue;
                return false;
            }
            if (write(out.get(), info.constData(), size_t(info.size())) != info.size() ||
                !out.close()) {
                unlinkat(trash->info.get(), infoName.constData(), 0);
                return false;
            }
        }
        if (renameat2(place.folder.get(), place.name.constData(), trash->files.get(),
                      name.constData(), RENAME_NOREPLACE) == 0) {
            // The user can now restore or delete it like anything trashed. A
            // folder only: a file's name could be the user's hard link.
            const FileDescriptor moved(openat(trash->files.get(), name.constData(), kFolderFlags));
            if (moved.get() >= 0)
                KVFileManagerPlatform::changeOwnerAt(moved.get(), ".", rights.user, rights.group);
            return true;
        }
        const int error = errno;
        const AsUser user(rights);
        unlinkat(trash->info.get(), infoName.constData(), 0);
        if (error != EEXIST) return false;
    }
    return false;
}

// Where no trash can take the old copy, it stays beside the new one.
bool keepBeside(const Place &place) {
    const QByteArray base = place.name.endsWith(".app") ? place.name.chopped(4) : place.name;
    const QByteArray extension = place.name.endsWith(".app") ? ".app" : "";
    for (int attempt = 1; attempt < 1000; ++attempt) {
        const QByteArray name = base + " (replaced" +
                                (attempt == 1 ? QByteArray() : " " + QByteArray::number(attempt)) +
                                ")" + extension;
        if (renameat2(place.folder.get(), place.name.constData(), place.folder.get(),
                      name.constData(), RENAME_NOREPLACE) == 0) {
            kvLog("Kept the replaced copy as %@",
                  QFileInfo(place.path).dir().filePath(QFile::decodeName(name)));
            return true;
        }
        if (errno != EEXIST) return false;
    }
    return false;
}
}  // namespace

std::optional<Place> InstallPlatform::placeOf(const QString &path, const InstallRights &rights) {
    const QByteArray local = QFile::encodeName(path);
    if (!local.startsWith('/')) return std::nullopt;
    QByteArrayList components = local.mid(1).split('/');
    for (const QByteArray &component : components) {
        if (component.isEmpty() || component == "." || component == "..") return std::nullopt;
    }
    const QByteArray name = components.takeLast();
    FileDescriptor folder;
    if (!rights.restricted) {
        folder = FileDescriptor(
            open(("/" + components.join('/')).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    } else {
        // Component by component from the root, never through a link.
        FileDescriptor current(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        for (const QByteArray &component : components) {
            if (current.get() < 0) break;
            current = FileDescriptor(openat(current.get(), component.constData(),
                                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        }
        if (current.get() >= 0)
            folder = FileDescriptor(openat(current.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (folder.get() < 0) return std::nullopt;
    return Place{std::move(folder), name, path};
}

bool InstallPlatform::exists(const Place &place) {
    struct stat status;
    return place.folder.get() >= 0 && statAt(place.folder.get(), place.name.constData(), &status);
}

std::optional<FileDescriptor> InstallPlatform::openFolder(const Place &place) {
    FileDescriptor folder(openat(place.folder.get(), place.name.constData(), kFolderFlags));
    if (folder.get() < 0) return std::nullopt;
    return folder;
}

Place InstallPlatform::placeIn(const FileDescriptor &folder, const QByteArray &name,
                               const QString &path) {
    return Place{FileDescriptor(folder.get() < 0 ? -1 : fcntl(folder.get(), F_DUPFD_CLOEXEC, 0)),
                 name, path};
}

bool InstallPlatform::lockFolder(const Place &place, bool *waited) {
    // Anyone who may read the folder may lock it, so the wait has an end;
    // the staged replace needs no lock to keep the product whole.
    *waited = false;
    for (int attempt = 0; attempt < 6000; ++attempt) {
        if (flock(place.folder.get(), LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK && errno != EINTR) return false;
        *waited = true;
        usleep(10000);
    }
    return false;
}

std::optional<FileDescriptor> InstallPlatform::openSource(const QString &path,
                                                          const InstallRights &rights) {
    // The user may name anything the user can read, through any link.
    const AsUser user(rights);
    if (!user.ok()) return std::nullopt;
    FileDescriptor source(
        open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (source.get() < 0) return std::nullopt;
    return source;
}

bool InstallPlatform::isBundle(int source, const InstallRights &rights) {
    const AsUser user(rights);
    struct stat contents, information;
    return user.ok() && statAt(source, "Contents", &contents) && S_ISDIR(contents.st_mode) &&
           statAt(source, "Contents/Info.plist", &information) && S_ISREG(information.st_mode);
}

QList<QByteArray> InstallPlatform::contentsOf(int source, const InstallRights &rights) {
    const AsUser user(rights);
    QList<QByteArray> names;
    if (!user.ok()) return names;
    if (const auto entries = KVFileManagerPlatform::entryNamesAt(source)) {
        for (const QByteArray &name : *entries) names << name;
    }
    return names;
}

bool InstallPlatform::overlaps(int source, const Place &place) {
    struct stat sourceStatus, item, target;
    if (!statAt(source, "", &sourceStatus)) return true;
    // The destination folder is the source or lies inside it.
    if (isAtOrBelow(place.folder.get(), sourceStatus)) return true;
    const char *name = place.name.constData();
    if (!statAt(place.folder.get(), name, &item)) return false;
    if (sameInode(item, sourceStatus)) return true;
    if (statAt(place.folder.get(), name, &target, 0) && sameInode(target, sourceStatus))
        return true;
    // The source lies inside the item it would replace.
    return S_ISDIR(item.st_mode) && isAtOrBelow(source, item);
}

bool InstallPlatform::stage(int source, const QByteArray &name, const Place &place,
                            const QByteArray &staging, const InstallRights &rights,
                            const std::atomic<bool> *cancel) {
    struct stat status;
    if (statAt(place.folder.get(), staging.constData(), &status))
        KVFileManagerPlatform::removeItemAt(place.folder.get(), staging);
    const CopyOptions options = copyOptions(place, rights, cancel);
    if (name.isEmpty())
        return KVFileManagerPlatform::copyFolderAt(source, place.folder.get(), staging, options);
    return KVFileManagerPlatform::copyItemAt(source, name, place.folder.get(), staging, options);
}

void InstallPlatform::discard(const Place &place, const QByteArray &staging) {
    KVFileManagerPlatform::removeItemAt(place.folder.get(), staging);
}

bool InstallPlatform::putInPlace(const Place &place, const QByteArray &staging) {
    return renameat2(place.folder.get(), staging.constData(), place.folder.get(),
                     place.name.constData(), RENAME_NOREPLACE) == 0;
}

bool InstallPlatform::remove(const Place &place) {
    return KVFileManagerPlatform::removeItemAt(place.folder.get(), place.name);
}

bool InstallPlatform::trash(const Place &place, const InstallRights &rights) {
    // The process's own user: the desktop's trash, as for any other file.
    if (rights.user == uid_t(-1)) return KVWorkspace::moveToTrash(place.path);
    return moveToUsersTrash(place, rights) || keepBeside(place);
}
