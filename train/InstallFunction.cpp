#include "InstallFunction.h"

#include <QFile>
#include <mutex>

#include "InstallFunction_p.h"
#include "KVLog.h"
#include "KVPath.h"
#include "KVWorkspace.h"

using namespace InstallPlatform;

namespace {
// The run in progress, so that a quitting program can take back its
// staging item: the place and staging name, guarded by the lock, which the
// run also holds while it replaces what is installed.
std::mutex s_lock;
std::atomic<bool> s_cancelled{false};
const Place *s_stagingPlace = nullptr;
QByteArray s_stagingName;

// Hidden, and within the file system's 255 bytes a name, however long the
// product's own is.
QByteArray stagingNameFor(const QByteArray &name) { return "." + name.left(240) + ".installing"; }

// Copies the source (or its item name) to a staging item beside the place,
// then lets replace(staging) put it there. A failed copy or replacement
// removes the staging item; what was at the place stays unless replace
// moved it.
template <typename Replace>
bool installStaged(int source, const QByteArray &name, const Place &place,
                   const InstallRights &rights, Replace replace) {
    const QByteArray staging = stagingNameFor(place.name);
    {
        const std::lock_guard lock(s_lock);
        if (s_cancelled) return false;
        s_stagingPlace = &place;
        s_stagingName = staging;
    }
    const bool staged = stage(source, name, place, staging, rights, &s_cancelled);
    const std::lock_guard lock(s_lock);
    s_stagingPlace = nullptr;
    if (staged && !s_cancelled && replace(staging)) return true;
    discard(place, staging);
    return false;
}

// Auxiliary items of an installed wrapper are replaced by deletion, not moved
// to the trash. The product's own entry is copied too; the steps after this
// replace it.
int installWrapperItems(int wrapper, const Place &installed, const InstallRights &rights) {
    const std::optional<FileDescriptor> opened = openFolder(installed);
    const FileDescriptor none;
    const FileDescriptor &folder = opened ? *opened : none;
    for (const QByteArray &name : contentsOf(wrapper, rights)) {
        const QString target =
            KVPath::stringByAppendingPathComponent(installed.path, QFile::decodeName(name));
        const Place item = placeIn(folder, name, target);
        if (exists(item) && !remove(item)) kvLog("ERROR -- Could not delete %@", target);
        if (folder.get() < 0 ||
            !installStaged(wrapper, name, item, rights,
                           [&](const QByteArray &staging) { return putInPlace(item, staging); })) {
            kvLog("ERROR -- Could not copy auxiliary item to %@", target);
            return 2;
        }
        KVWorkspace::noteFileSystemChanged(target);
    }
    return 0;
}

void logOverlap(const QString &source, const QString &destination) {
    kvLog("ERROR -- Will not install %@ over or into itself: %@", source, destination);
}

// Whether the folder at the place holds a bundle at the destination's name,
// looked at with the process's own rights.
bool holdsBundle(const Place &folder, const QString &destination) {
    const std::optional<FileDescriptor> opened = openFolder(folder);
    if (!opened) return false;
    const Place product =
        placeIn(*opened, QFile::encodeName(KVPath::lastPathComponent(destination)), destination);
    const std::optional<FileDescriptor> bundle = openFolder(product);
    return bundle && isBundle(bundle->get(), InstallRights());
}

int copyFailed(const QString &destination) {
    kvLog("ERROR -- Could not copy myself to %@", destination);
    return 2;
}
}  // namespace

void InstallApplicationCancel() {
    const std::lock_guard lock(s_lock);
    s_cancelled = true;
    // At once, for a program about to end; the run removes whatever its copy
    // still wrote once it stops.
    if (s_stagingPlace) discard(*s_stagingPlace, s_stagingName);
}

int InstallApplication(const QString &source, const QString &destination, const QString &wrapper,
                       const InstallRights &rights) {
    s_cancelled = false;
    // The folder the run installs into is held until the run ends: with a
    // wrapper the one that holds the wrapper.
    const QString top =
        wrapper.isNull() ? destination : KVPath::stringByDeletingLastPathComponent(destination);
    const std::optional<Place> topPlace = placeOf(top, rights);
    if (!topPlace) {
        if (!wrapper.isNull()) kvLog("ERROR -- Could not copy wrapper to %@", top);
        return wrapper.isNull() ? copyFailed(destination) : 2;
    }
    const QString topFolder = KVPath::stringByDeletingLastPathComponent(top);
    bool waited = false;
    if (!lockFolder(*topPlace, &waited))
        kvLog("Could not lock %@", topFolder);
    else if (waited)
        kvLog("Waited for another installation into %@ to end", topFolder);

    if (!wrapper.isNull()) {
        const std::optional<FileDescriptor> wrapperFolder = openSource(wrapper, rights);
        if (wrapperFolder && overlaps(wrapperFolder->get(), *topPlace)) {
            logOverlap(wrapper, top);
            return 2;
        }
        // A privileged run replaces the items of an installed wrapper only
        // in a folder that holds the product already: any other folder's
        // items are not the wrapper's to replace.
        if (exists(*topPlace) && rights.restricted && !holdsBundle(*topPlace, destination)) {
            kvLog("ERROR -- %@ holds no installed copy of the product; its items stay", top);
            return 2;
        }
        if (exists(*topPlace) && wrapperFolder) {
            if (const int result = installWrapperItems(wrapperFolder->get(), *topPlace, rights))
                return result;
        } else {
            if (!wrapperFolder || !installStaged(wrapperFolder->get(), {}, *topPlace, rights,
                                                 [&](const QByteArray &staging) {
                                                     return putInPlace(*topPlace, staging);
                                                 })) {
                kvLog("ERROR -- Could not copy wrapper to %@", top);
                return 2;
            }
            KVWorkspace::noteFileSystemChanged(top);
        }
    }

    const std::optional<Place> place = placeOf(destination, rights);
    // The source must be the bundle it names, read before anything moves.
    const std::optional<FileDescriptor> bundle = openSource(source, rights);
    if (!place || !bundle || !isBundle(bundle->get(), rights)) return copyFailed(destination);
    if (overlaps(bundle->get(), *place)) {
        logOverlap(source, destination);
        return 2;
    }
    bool trashFailed = false;
    const bool installed =
        installStaged(bundle->get(), {}, *place, rights, [&](const QByteArray &staging) {
            if (exists(*place) && !trash(*place, rights)) {
                trashFailed = true;
                return false;
            }
            return putInPlace(*place, staging);
        });
    if (trashFailed) {
        // Both lines say the same; both are written, in this order.
        kvLog("ERROR -- Could not trash '%@'", destination);
        kvLog("ERROR -- Could not trash existing %@", destination);
        return 1;
    }
    if (!installed) return copyFailed(destination);
    KVWorkspace::noteFileSystemChanged(destination);
    return 0;
}
