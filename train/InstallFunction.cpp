#include "InstallFunction.h"

#include "KVFileManager.h"
#include "KVLog.h"
#include "KVPath.h"
#include "KVWorkspace.h"

namespace {
// Auxiliary items of an installed wrapper are replaced by deletion, not moved
// to the trash. The product's own entry is copied too; the steps after this
// replace it.
int installWrapperItems(const QString &wrapper, const QString &folder) {
    for (const QString &name : KVFileManager::contentsOfDirectoryAtPath(wrapper)) {
        const QString target = KVPath::stringByAppendingPathComponent(folder, name);
        const QString item = KVPath::stringByAppendingPathComponent(wrapper, name);
        if (KVFileManager::fileExistsAtPath(target) && !KVFileManager::removeItemAtPath(target))
            kvLog("ERROR -- Could not delete %@", target);
        if (!KVFileManager::copyItemAtPath(item, target)) {
            kvLog("ERROR -- Could not copy auxiliary item to %@", target);
            return 2;
        }
        KVWorkspace::noteFileSystemChanged(target);
    }
    return 0;
}
}  // namespace

int InstallApplication(const QString &source, const QString &destination, const QString &wrapper) {
    if (!wrapper.isNull()) {
        const QString folder = KVPath::stringByDeletingLastPathComponent(destination);
        if (KVFileManager::fileExistsAtPath(folder)) {
            if (const int result = installWrapperItems(wrapper, folder)) return result;
        } else {
            if (!KVFileManager::copyItemAtPath(wrapper, folder)) {
                kvLog("ERROR -- Could not copy wrapper to %@", folder);
                return 2;
            }
            KVWorkspace::noteFileSystemChanged(folder);
        }
    }

    if (KVFileManager::fileExistsAtPath(destination) && !KVWorkspace::moveToTrash(destination)) {
        // Both lines say the same; both are written, in this order.
        kvLog("ERROR -- Could not trash '%@'", destination);
        kvLog("ERROR -- Could not trash existing %@", destination);
        return 1;
    }

    if (!KVFileManager::copyItemAtPath(source, destination)) {
        kvLog("ERROR -- Could not copy myself to %@", destination);
        return 2;
    }
    KVWorkspace::noteFileSystemChanged(destination);
    return 0;
}
