// The desktop's colour scheme on Linux: the XDG desktop portal's Settings
// interface, "color-scheme" of "org.freedesktop.appearance" (1 prefers dark).
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

#include "KVDynamicColor_p.h"

namespace {

// A portal that hangs must not stall painting for long.
constexpr int kPortalTimeoutMilliseconds = 250;
constexpr uint kPreferDark = 1;

}  // namespace

std::optional<bool> KVDynamicColorPrivate::desktopPrefersDark() {
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return std::nullopt;
    QDBusMessage read = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.portal.Desktop"),
        QStringLiteral("/org/freedesktop/portal/desktop"),
        QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
    read << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme");
    // Only a portal already running answers; none is started for a colour.
    read.setAutoStartService(false);
    const QDBusMessage reply = bus.call(read, QDBus::Block, kPortalTimeoutMilliseconds);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    // Read wraps the value in a second variant; unwrap as many as there are.
    QVariant value = reply.arguments().constFirst();
    for (int depth = 0; depth < 4 && value.metaType() == QMetaType::fromType<QDBusVariant>();
         ++depth)
        value = qvariant_cast<QDBusVariant>(value).variant();
    bool ok = false;
    const uint scheme = value.toUInt(&ok);
    if (!ok) return std::nullopt;
    return scheme == kPreferDark;
}
