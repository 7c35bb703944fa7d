// Telling the desktop about an application bundle, so that menus, file
// managers and "open with" know it.
#pragma once

#include <QString>

namespace KVLaunchServices {
// Status codes of registerURL, in the classic numbering.
inline constexpr int noErr = 0;
inline constexpr int fnfErr = -43;    // nothing, or no application bundle, at the path
inline constexpr int ioErr = -36;     // the registration could not be written
inline constexpr int paramErr = -50;  // the bundle has no identifier to register it under

// Registers (or, with update, re-registers) the application bundle at path.
// On Linux: writes $XDG_DATA_HOME/applications/<CFBundleIdentifier>.desktop
// and the bundle's icon as a PNG beside the desktop's icons, then runs
// update-desktop-database when it is installed. Returns a status above.
int registerURL(const QString &path, bool update);
// The desktop entry text for the bundle (what registerURL writes).
QString desktopEntryFor(const QString &bundlePath, const QString &iconPath);
}  // namespace KVLaunchServices
