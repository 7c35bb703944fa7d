#include <gtest/gtest.h>

#include <QApplication>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QPaintEvent>
#include <QWidget>
#include <functional>
#include <memory>

#include "BusPeer.h"
#include "KVDynamicColor.h"
#include "KVDynamicColor_p.h"
#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "TestPalette.h"
#include "ViewExtensions.h"

using namespace KVDynamicColorPrivate;

namespace {

const QColor kLight(250, 240, 230);
const QColor kDark(20, 30, 40);

enum class Palette { Inherited, Light, Dark, LightAppearance };

void applyPalette(QWidget *widget, Palette palette) {
    if (palette == Palette::LightAppearance) ViewExtensions::useLightAquaAppearance(widget, true);
    if (palette == Palette::Light || palette == Palette::Dark)
        widget->setPalette(testPalette(palette == Palette::Dark));
}

// The application's own palette for the life of the object; an inherited one
// leaves the application with none of its own.
class ApplicationPalette {
public:
    explicit ApplicationPalette(Palette palette) {
        QApplication::setPalette(
            palette == Palette::Inherited ? QPalette() : testPalette(palette == Palette::Dark));
    }
    ~ApplicationPalette() { QApplication::setPalette(QPalette()); }
};

// A widget that asks a colour for its value while it is being painted.
class PaintProbe : public QWidget {
public:
    PaintProbe(QWidget *parent, const KVDynamicColor &color) : QWidget(parent), m_color(color) {
        resize(8, 8);
    }
    QColor painted;

protected:
    void paintEvent(QPaintEvent *) override { painted = m_color.effectiveColor(); }

private:
    const KVDynamicColor &m_color;
};

using Rgb = std::array<double, 3>;

// The desktop portal's appearance settings; anything else is an empty text.
class FakePortalSettings : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public:
    explicit FakePortalSettings(uint scheme, Rgb accent = {-1, -1, -1})
        : m_scheme(scheme), m_accent(accent) {}

public slots:
    QDBusVariant Read(const QString &settingNamespace, const QString &key) {
        QVariant value = QString();
        if (settingNamespace == QLatin1String("org.freedesktop.appearance")) {
            if (key == QLatin1String("color-scheme")) value = m_scheme;
            if (key == QLatin1String("accent-color")) {
                QDBusArgument rgb;
                rgb.beginStructure();
                rgb << m_accent[0] << m_accent[1] << m_accent[2];
                rgb.endStructure();
                value = QVariant::fromValue(rgb);
            }
        }
        // The portal wraps each value in a second variant.
        return QDBusVariant(QVariant::fromValue(QDBusVariant(value)));
    }

private:
    uint m_scheme;
    Rgb m_accent;
};

BusPeer *newPortal(FakePortalSettings *settings) {
    return new BusPeer(settings, QStringLiteral("org.freedesktop.portal.Desktop"),
                       QStringLiteral("/org/freedesktop/portal/desktop"));
}

TEST(KVDynamicColorTest, PaintedWidgetThenApplicationDecideTheAppearance) {
    const BusNamesTurn turn;
    using enum Palette;
    // clang-format off
    // The application's, the parent's and the painted widget's palette, global, dark.
    const std::tuple<const char *, Palette, Palette, Palette, bool, bool> cases[] = {
        {"nothing set, no portal", Inherited, Inherited, Inherited, false, false},
        {"dark application", Dark, Inherited, Inherited, false, true},
        {"light-appearance parent in a dark application", Dark, LightAppearance, Inherited, false,
         false},
        {"dark parent in a light application", Light, Dark, Inherited, false, true},
        {"dark widget inside a light-appearance parent", Dark, LightAppearance, Dark, false, true},
        {"light widget inside a dark parent", Dark, Dark, Light, false, false},
        {"global colour ignores a dark widget", Light, Dark, Dark, true, false},
        {"global colour ignores a light-appearance widget", Dark, LightAppearance, Inherited, true,
         true}};
    // clang-format on
    for (const auto &[name, inApplication, inParent, painted, global, dark] : cases) {
        SCOPED_TRACE(name);
        const ApplicationPalette application(inApplication);
        const KVDynamicColor color = KVDynamicColor::lightColor(kLight, kDark, global);
        QWidget parent;
        applyPalette(&parent, inParent);
        PaintProbe probe(&parent, color);
        applyPalette(&probe, painted);
        probe.grab();
        const QColor expected = dark ? kDark : kLight;
        EXPECT_EQ(probe.painted, expected);
        EXPECT_EQ(color.effectiveColor(&probe), expected);
    }
}

TEST(KVDynamicColorTest, ColourWithoutDarkValueIsLightInDarkAppearance) {
    const ApplicationPalette application(Palette::Dark);
    const KVDynamicColor color = KVDynamicColor::lightColor(kLight, QColor());
    EXPECT_EQ(color.effectiveColor(nullptr), kLight);
    const KVDynamicColor noColor = KVDynamicColor::lightColor(QColor(), kDark);
    EXPECT_EQ(noColor.effectiveColor(nullptr), kDark);
    EXPECT_FALSE(KVDynamicColor::lightColor(QColor(), QColor()).isValid());
}

TEST(KVDynamicColorTest, UseGlobalAppearanceAnswersTheSameColour) {
    const ApplicationPalette application(Palette::Light);
    KVDynamicColor color = KVDynamicColor::lightColor(kLight, kDark);
    EXPECT_EQ(&color.useGlobalAppearance(true), &color);
    QWidget dark;
    applyPalette(&dark, Palette::Dark);
    EXPECT_EQ(color.effectiveColor(&dark), kLight);
    EXPECT_EQ(color.useGlobalAppearance(false).effectiveColor(&dark), kDark);
    // Questions about the colour go to the one in force.
    EXPECT_EQ(color.name(), kLight.name());
    EXPECT_EQ(color.lighter(), kLight.lighter());
}

TEST(KVDynamicColorTest, DesktopPortalDecidesWhenTheApplicationHasNoPalette) {
    const BusNamesTurn turn;
    EXPECT_EQ(desktopPrefersDark(), std::nullopt);
    const KVDynamicColor color = KVDynamicColor::lightColor(kLight, kDark, true);
    EXPECT_EQ(color.effectiveColor(), kLight);
    for (const uint scheme : {0u, 1u, 2u}) {
        SCOPED_TRACE(scheme);
        const std::unique_ptr<BusPeer> portal(newPortal(new FakePortalSettings(scheme)));
        ASSERT_TRUE(portal->registered());
        EXPECT_EQ(desktopPrefersDark(), scheme == 1);
        EXPECT_EQ(color.effectiveColor(), scheme == 1 ? kDark : kLight);
        // A palette the application set itself wins over the desktop's.
        const ApplicationPalette application(Palette::Light);
        EXPECT_EQ(color.effectiveColor(), kLight);
    }
}

TEST(KVDynamicColorTest, RedWarningTextColourIsOneSharedColour) {
    KVDynamicColor &warning = KVDynamicColor::redWarningTextColor();
    EXPECT_EQ(&warning, &KVDynamicColor::redWarningTextColor());
    EXPECT_FALSE(warning.usesGlobalAppearance());
    EXPECT_EQ(warning.aquaColor(), QColor::fromRgbF(0.75f, 0.0f, 0.0f));
    EXPECT_EQ(warning.darkAquaColor(), QColor::fromRgbF(1.0f, 0.2f, 0.0f));
}

TEST(KVDynamicColorTest, AccentColourNamesFromTheStoredIndex) {
    const BusNamesTurn turn;
    const QString line = QStringLiteral("*** unknown accent color index: %1");
    // In order: an unknown index is logged unless it was the last one logged.
    // clang-format off
    const std::tuple<QVariant, QString, QStringList> cases[] = {  // stored, name, logged
        {QVariant(), KVAccentColorNameBlue, {}}, {-1, KVAccentColorNameGraphite, {}},
        {QStringLiteral("3"), KVAccentColorNameGreen, {}}, {5.9, KVAccentColorNamePurple, {}},
        {true, KVAccentColorNameOrange, {}}, {QStringLiteral("purple"), KVAccentColorNameBlue, {}},
        {QVariantList{5}, KVAccentColorNameBlue, {}}, {4, KVAccentColorNameBlue, {line.arg(4)}},
        {4, KVAccentColorNameBlue, {}}, {QStringLiteral("4"), KVAccentColorNameBlue, {}},
        {7, KVAccentColorNameBlue, {line.arg(7)}}, {4, KVAccentColorNameBlue, {line.arg(4)}},
        {-1, KVAccentColorNameGraphite, {}}, {4, KVAccentColorNameBlue, {}}};
    // clang-format on
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    // Whatever unknown index was logged before, 9 is the last one now.
    defaults.setObject(9, QStringLiteral("AppleAccentColor"));
    {
        const LogCapture discarded;
        EXPECT_EQ(KVDynamicColor::accentColorName(), KVAccentColorNameBlue);
    }
    for (const auto &[stored, name, logged] : cases) {
        SCOPED_TRACE(stored.toString().toStdString());
        defaults.setObject(stored, QStringLiteral("AppleAccentColor"));
        const LogCapture log;
        EXPECT_EQ(KVDynamicColor::accentColorName(), name);
        EXPECT_EQ(log.messages(), logged);
    }
    defaults.removeObjectForKey(QStringLiteral("AppleAccentColor"));
}

TEST(KVDynamicColorTest, DesktopAccentColourCountsWithoutAStoredChoice) {
    const BusNamesTurn turn;
    const std::pair<Rgb, QString> cases[] = {
        {{0.21, 0.52, 0.89}, KVAccentColorNameBlue},  {{0.57, 0.25, 0.67}, KVAccentColorNamePurple},
        {{0.9, 0.2, 0.26}, KVAccentColorNameRed},     {{0.3, 0.8, 0.3}, KVAccentColorNameGreen},
        {{0.5, 0.5, 0.5}, KVAccentColorNameGraphite}, {{1.0, 0.75, 0.2}, KVAccentColorNameYellow},
        {{-1, -1, -1}, KVAccentColorNameBlue},  // none set
        {{2.0, 0.2, 0.2}, KVAccentColorNameBlue}};
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    for (const auto &[accent, name] : cases) {
        SCOPED_TRACE(name.toStdString());
        const std::unique_ptr<BusPeer> portal(newPortal(new FakePortalSettings(0, accent)));
        ASSERT_TRUE(portal->registered());
        defaults.removeObjectForKey(QStringLiteral("AppleAccentColor"));
        EXPECT_EQ(KVDynamicColor::accentColorName(), name);
        // The user's own choice wins.
        defaults.setObject(5, QStringLiteral("AppleAccentColor"));
        EXPECT_EQ(KVDynamicColor::accentColorName(), KVAccentColorNamePurple);
    }
    defaults.removeObjectForKey(QStringLiteral("AppleAccentColor"));
}

TEST(KVDynamicColorTest, MenuHighlightsFollowTheAccentColour) {
    const BusNamesTurn turn;
    // The accent, the stored index that picks it, the menu's light r, g, b then dark r, g,
    // b, and the same for the menu item in 255ths.
    // clang-format off
    const std::tuple<QString, QVariant, std::array<double, 6>, std::array<int, 6>> cases[] = {
        {KVAccentColorNameBlue, {}, {.16, .43, .95, .04, .29, .76}, {60, 139, 246, 12, 111, 225}},
        {KVAccentColorNamePurple, 5, {.57, .26, .58, .44, .18, .45}, {169, 99, 170, 135, 59, 135}},
        {KVAccentColorNamePink, 6, {.95, .31, .61, .73, .16, .43}, {248, 114, 176, 218, 74, 142}},
        {KVAccentColorNameRed, 0, {.85, .25, .29, .76, .18, .22}, {229, 95, 100, 199, 54, 60}},
        {KVAccentColorNameOrange, 1, {.95, .51, .22, .73, .34, .08}, {248, 154, 79, 218, 117, 31}},
        {KVAccentColorNameYellow, 2, {.97, .71, .25, .76, .53, .11}, {252, 198, 90, 222, 164, 42}},
        {KVAccentColorNameGreen, 3, {.42, .73, .32, .26, .54, .17}, {128, 198, 107, 90, 165, 66}},
        {KVAccentColorNameGraphite, -1, {.59, .59, .59, .34, .34, .34},
         {162, 162, 162, 124, 128, 131}}};
    // clang-format on
    const auto expectRgb = [](const QColor &color, double r, double g, double b) {
        EXPECT_NEAR(color.redF(), r, 1e-4);
        EXPECT_NEAR(color.greenF(), g, 1e-4);
        EXPECT_NEAR(color.blueF(), b, 1e-4);
        EXPECT_EQ(color.alphaF(), 1.0f);
    };
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    QSet<const KVDynamicColor *> seen;
    for (const auto &[accent, stored, menuRgb, itemRgb] : cases) {
        SCOPED_TRACE(accent.toStdString());
        defaults.setObject(stored, QStringLiteral("AppleAccentColor"));
        const LogCapture quiet;
        KVDynamicColor &menu = KVDynamicColor::menuHighlightColor();
        KVDynamicColor &item = KVDynamicColor::menuItemHighlightColor();
        EXPECT_EQ(&menu, &KVDynamicColor::menuHighlightColor());
        EXPECT_TRUE(menu.usesGlobalAppearance());
        EXPECT_FALSE(item.usesGlobalAppearance());
        seen << &menu << &item;
        for (const bool dark : {false, true}) {
            const ApplicationPalette application(dark ? Palette::Dark : Palette::Light);
            const int o = dark ? 3 : 0;
            expectRgb(menu.effectiveColor(), menuRgb[o], menuRgb[o + 1], menuRgb[o + 2]);
            expectRgb(item.effectiveColor(nullptr), itemRgb[o] / 255.0, itemRgb[o + 1] / 255.0,
                      itemRgb[o + 2] / 255.0);
        }
    }
    EXPECT_EQ(seen.size(), 16);
    defaults.removeObjectForKey(QStringLiteral("AppleAccentColor"));
}

QByteArray archive(const std::function<void(QDataStream &)> &write) {
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    write(out);
    return bytes;
}

QByteArray encoded(const KVDynamicColor &color) {
    return archive([&color](QDataStream &s) { color.encodeWithCoder(s); });
}

std::optional<KVDynamicColor> decoded(const QByteArray &bytes, QDataStream::Status *status) {
    QDataStream in(bytes);
    std::optional<KVDynamicColor> color = KVDynamicColor::initWithCoder(in);
    *status = in.status();
    return color;
}

// A key as it appears in an archive, without its length.
QByteArray utf16Key(const char *key) {
    return archive([key](QDataStream &s) { s << QString::fromLatin1(key); }).mid(4);
}

TEST(KVDynamicColorTest, ArchivedColoursComeBackFollowingWhatIsPainted) {
    const std::pair<QColor, QColor> cases[] = {
        {kLight, kDark}, {kLight, QColor()}, {QColor(), kDark}, {QColor(), QColor()}};
    for (const auto &[light, dark] : cases) {
        SCOPED_TRACE(light.name().toStdString() + " " + dark.name().toStdString());
        const QByteArray bytes = encoded(KVDynamicColor::lightColor(light, dark, true));
        EXPECT_TRUE(bytes.contains(utf16Key("aquaColor")));
        EXPECT_EQ(bytes.contains(utf16Key("darkAquaColor")), dark.isValid());
        QDataStream::Status status;
        const std::optional<KVDynamicColor> back = decoded(bytes, &status);
        ASSERT_TRUE(back);
        EXPECT_EQ(status, QDataStream::Ok);
        EXPECT_EQ(back->aquaColor(), light);
        EXPECT_EQ(back->darkAquaColor(), dark);
        EXPECT_FALSE(back->usesGlobalAppearance());
    }
}

TEST(KVDynamicColorTest, ArchivesWithAnythingButColoursAreRefused) {
    const QString aqua = QStringLiteral("aquaColor");
    const QString colorClass = QStringLiteral("QColor");
    const QByteArray good = encoded(KVDynamicColor::lightColor(kLight, kDark));
    const std::pair<const char *, QByteArray> cases[] = {
        {"empty", {}},
        {"cut inside the dark colour", good.left(good.size() - 3)},
        {"a text where a colour belongs", archive([&](QDataStream &s) {
             s << kLight << quint32(1) << aqua << QStringLiteral("QString") << aqua;
         })},
        {"a variant where a colour belongs", archive([&](QDataStream &s) {
             s << kLight << quint32(1) << aqua << QStringLiteral("QVariant") << QVariant(kLight);
         })},
        {"more entries than keys", archive([&](QDataStream &s) {
             s << kLight << quint32(0xFFFFFFFF) << aqua << colorClass << kLight;
         })},
        {"a key claiming 2 GB",
         archive([&](QDataStream &s) { s << kLight << quint32(1) << quint32(0x7FFFFFFE); })},
        {"a class name cut short", archive([&](QDataStream &s) {
             s << kLight << quint32(1) << aqua << quint32(12) << quint16('Q');
         })}};
    for (const auto &[name, bytes] : cases) {
        SCOPED_TRACE(name);
        QDataStream::Status status;
        EXPECT_FALSE(decoded(bytes, &status));
        EXPECT_NE(status, QDataStream::Ok);
    }
}

}  // namespace

#include "KVDynamicColorTest.moc"
