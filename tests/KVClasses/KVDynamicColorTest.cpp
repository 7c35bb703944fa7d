#include <QDBusArgument>
#include <QDBusVariant>

#include "BusPeer.h"
#include "KVClassesTest.h"
#include "KVDynamicColor.h"
#include "KVDynamicColor_p.h"

using namespace KVDynamicColorPrivate;

namespace {

using Rgb = std::array<double, 3>;

class FakePortalSettings : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public:
    FakePortalSettings(uint scheme, Rgb accent) : m_scheme(scheme), m_accent(accent) {}
    const uint m_scheme;
    const Rgb m_accent;

public slots:
    QDBusVariant Read(const QString &settingNamespace, const QString &key) {
        QVariant value = QString();
        if (settingNamespace == "org.freedesktop.appearance" && key == "color-scheme")
            value = m_scheme;
        if (settingNamespace == "org.freedesktop.appearance" && key == "accent-color") {
            QDBusArgument rgb;
            rgb.beginStructure();
            rgb << m_accent[0] << m_accent[1] << m_accent[2];
            rgb.endStructure();
            value = QVariant::fromValue(rgb);
        }
        // The portal wraps each value in a second variant.
        return QDBusVariant(QVariant::fromValue(QDBusVariant(value)));
    }
};

std::unique_ptr<BusPeer> portal(uint scheme, Rgb accent = {-1, -1, -1}) {
    auto peer = std::make_unique<BusPeer>(new FakePortalSettings(scheme, accent),
                                          "org.freedesktop.portal.Desktop",
                                          "/org/freedesktop/portal/desktop");
    EXPECT_TRUE(peer->registered());
    return peer;
}

// An unknown index is logged unless it was the last one logged.
TEST(KVDynamicColorTest, AccentColourNamesFromTheStoredIndexOrTheDesktop) {
    const BusNamesTurn turn;
    const QString line = "*** unknown accent color index: %1";
    // clang-format off
    const std::tuple<QVariant, QString, QStringList> cases[] = {  // stored, name, logged
        {QVariant(), KVAccentColorNameBlue, {}}, {-1, KVAccentColorNameGraphite, {}},
        {"3", KVAccentColorNameGreen, {}}, {5.9, KVAccentColorNamePurple, {}},
        {true, KVAccentColorNameOrange, {}}, {"purple", KVAccentColorNameBlue, {}},
        {4, KVAccentColorNameBlue, {line.arg(4)}}, {4, KVAccentColorNameBlue, {}},
        {7, KVAccentColorNameBlue, {line.arg(7)}}, {4, KVAccentColorNameBlue, {line.arg(4)}},
        {-1, KVAccentColorNameGraphite, {}}, {4, KVAccentColorNameBlue, {}}};
    const std::pair<Rgb, QString> desktop[] = {
        {{0.57, 0.25, 0.67}, KVAccentColorNamePurple}, {{0.5, 0.5, 0.5}, KVAccentColorNameGraphite},
        {{-1, -1, -1}, KVAccentColorNameBlue}, {{2.0, 0.2, 0.2}, KVAccentColorNameBlue}};
    // clang-format on
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    for (const auto &[stored, name, logged] : cases) {
        SCOPED_TRACE(stored.toString().toStdString());
        defaults.setObject(stored, "AppleAccentColor");
        const LogCapture log;
        EXPECT_EQ(KVDynamicColor::accentColorName(), name);
        EXPECT_EQ(log.messages(), logged);
    }
    for (const auto &[accent, name] : desktop) {
        const std::unique_ptr<BusPeer> peer = portal(0, accent);
        defaults.removeObjectForKey("AppleAccentColor");
        EXPECT_EQ(KVDynamicColor::accentColorName(), name);
        defaults.setObject(5, "AppleAccentColor");  // the user's own choice wins
        EXPECT_EQ(KVDynamicColor::accentColorName(), KVAccentColorNamePurple);
    }
    defaults.removeObjectForKey("AppleAccentColor");
    EXPECT_EQ(desktopPrefersDark(), std::nullopt);
    for (const uint scheme : {0u, 1u, 2u}) {
        const std::unique_ptr<BusPeer> peer = portal(scheme);
        EXPECT_EQ(desktopPrefersDark(), scheme == 1) << scheme;
    }
}

}  // namespace

#include "KVDynamicColorTest.moc"
