#include "KVPath.h"
#include "KVSound_p.h"

QStringList KVSoundPlatform::soundFolders() {
    return {QStringLiteral("/usr/share/sounds"), QStringLiteral("/usr/local/share/sounds"),
            KVPath::homeDirectory() + QStringLiteral("/.local/share/sounds")};
}
