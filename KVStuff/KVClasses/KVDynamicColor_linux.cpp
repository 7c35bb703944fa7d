// The desktop's colour scheme on Linux: the XDG desktop portal's Settings
// interface, "color-scheme" of "org.freedesktop.appearance" (1 prefers dark).
#include <QDBusMessage>

#include "KVDynamicColor_p.h"
#include "KVUtilities_p.h"

std::optional<bool> KVDynamicColorPrivate::desktopPrefersDark() {
    constexpr uint kPreferDark = 1;
    QDBusMessage read = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.portal.Desktop"),
        QStringLiteral("/org/freedesktop/portal/desktop"),
        QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
    read << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme");
    const std::optional<QVariant> value = KVUtilitiesPrivate::askRunningService(read);
    bool ok = false;
    const uint scheme = value ? value->toUInt(&ok) : 0;
    if (!ok) return std::nullopt;
    return scheme == kPreferDark;
}
