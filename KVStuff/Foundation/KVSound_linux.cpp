#include "KVPath.h"
#include "KVSound_p.h"

QStringList KVSoundPlatform::soundFolders() {
    return {QStringLiteral("/usr/share/sounds"), QStringLiteral("/usr/local/share/sounds"),
            KVPath::userFolder(KVPath::UserFolder::Data) + QStringLiteral("/sounds")};
}
