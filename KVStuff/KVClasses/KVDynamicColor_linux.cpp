// The desktop's appearance on Linux: the XDG desktop portal's Settings
// interface, "color-scheme" (1 prefers dark) and "accent-color" (red, green
// and blue from 0 to 1) of "org.freedesktop.appearance".
#include <QDBusArgument>
#include <QDBusMessage>

#include "KVDynamicColor_p.h"
#include "KVUtilities_p.h"

namespace {

std::optional<QVariant> appearanceSetting(const QString &key) {
    QDBusMessage read = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.portal.Desktop"),
        QStringLiteral("/org/freedesktop/portal/desktop"),
        QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
    read << QStringLiteral("org.freedesktop.appearance") << key;
    return KVUtilitiesPrivate::askRunningService(read);
}

}  // namespace

std::optional<bool> KVDynamicColorPrivate::desktopPrefersDark() {
    constexpr uint kPreferDark = 1;
    const std::optional<QVariant> value = appearanceSetting(QStringLiteral("color-scheme"));
    bool ok = false;
    const uint scheme = value ? value->toUInt(&ok) : 0;
    if (!ok) return std::nullopt;
    return scheme == kPreferDark;
}

std::optional<QColor> KVDynamicColorPrivate::desktopAccentColor() {
    const std::optional<QVariant> value = appearanceSetting(QStringLiteral("accent-color"));
    if (!value || value->metaType() != QMetaType::fromType<QDBusArgument>()) return std::nullopt;
    const QDBusArgument argument = qvariant_cast<QDBusArgument>(*value);
    if (argument.currentSignature() != QLatin1String("(ddd)")) return std::nullopt;
    double rgb[3];
    argument.beginStructure();
    argument >> rgb[0] >> rgb[1] >> rgb[2];
    argument.endStructure();
    // A component outside 0 to 1 means the desktop has none set.
    for (const double component : rgb)
        if (!(component >= 0.0 && component <= 1.0)) return std::nullopt;
    return QColor::fromRgbF(float(rgb[0]), float(rgb[1]), float(rgb[2]));
}
