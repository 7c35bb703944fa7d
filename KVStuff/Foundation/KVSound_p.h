// What the portable half of KVSound needs from the operating system.
#pragma once

#include <QStringList>

namespace KVSoundPlatform {
// The folders searched for a named sound after the main bundle, in order.
QStringList soundFolders();
}  // namespace KVSoundPlatform
