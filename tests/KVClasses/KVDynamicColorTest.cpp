#include <QApplication>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QWidget>

#include "BusPeer.h"
#include "KVClassesTest.h"
#include "KVDynamicColor.h"
#include "KVDynamicColor_p.h"
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

struct ApplicationPalette {
    explicit ApplicationPalette(Palette palette) {
        QApplication::setPalette(
            palette == Palette::Inherited ? QPalette() : testPalette(palette == Palette::Dark));
    }
    ~ApplicationPalette() { QApplication::setPalette(QPalette()); }
};

struct PaintProbe : QWidget {
    PaintProbe(QWidget *parent, const KVDynamicColor &color) : QWidget(parent), color(color) {}
    void paintEvent(QPaintEvent *) override { painted = color.effectiveColor(); }
    const KVDynamicColor &color;
    QColor painted;
};

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

// The nearest widget with a palette of its own decides, else the application.
TEST(KVDynamicColorTest, PaintedWidgetThenApplicationDecideTheAppearance) {
    const BusNamesTurn turn;
    using enum Palette;
    // The application's, the parent's and the painted widget's palette, global, dark.
    // clang-format off
    const std::tuple<Palette, Palette, Palette, bool, bool> cases[] = {
        {Inherited, Inherited, Inherited, false, false}, {Dark, Inherited, Inherited, false, true},
        {Dark, LightAppearance, Inherited, false, false}, {Light, Dark, Inherited, false, true},
        {Dark, Dark, Light, false, false}, {Light, Dark, Dark, true, false}};
    // clang-format on
    int row = 0;
    for (const auto &[inApplication, inParent, painted, global, dark] : cases) {
        SCOPED_TRACE(row++);
        const ApplicationPalette application(inApplication);
        const KVDynamicColor color = KVDynamicColor::lightColor(kLight, kDark, global);
        QWidget parent;
        applyPalette(&parent, inParent);
        PaintProbe probe(&parent, color);
        applyPalette(&probe, painted);
        probe.grab();
        EXPECT_EQ(probe.painted, dark ? kDark : kLight);
        EXPECT_EQ(color.effectiveColor(&probe), dark ? kDark : kLight);
    }
    const ApplicationPalette application(Palette::Dark);
    EXPECT_EQ(KVDynamicColor::lightColor(kLight, QColor()).effectiveColor(nullptr), kLight);
    const KVDynamicColor color = KVDynamicColor::lightColor(kLight, kDark, true);
    QApplication::setPalette(QPalette());
    EXPECT_EQ(desktopPrefersDark(), std::nullopt);
    for (const uint scheme : {0u, 1u, 2u}) {
        const std::unique_ptr<BusPeer> peer = portal(scheme);
        EXPECT_EQ(desktopPrefersDark(), scheme == 1);
        EXPECT_EQ(color.effectiveColor(nullptr), scheme == 1 ? kDark : kLight) << scheme;
    }
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
}

QByteArray archive(const std::function<void(QDataStream &)> &write) {
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    write(out);
    return bytes;
}

TEST(KVDynamicColorTest, ArchivedColoursComeBackAndAnythingElseIsRefused) {
    const auto encoded = [](const KVDynamicColor &color) {
        return archive([&color](QDataStream &s) { color.encodeWithCoder(s); });
    };
    const auto decoded = [](const QByteArray &bytes) {
        QDataStream in(bytes);
        const std::optional<KVDynamicColor> color = KVDynamicColor::initWithCoder(in);
        EXPECT_EQ(color.has_value(), in.status() == QDataStream::Ok);
        return color;
    };
    for (const QColor &dark : {kDark, QColor()}) {
        const auto back = decoded(encoded(KVDynamicColor::lightColor(kLight, dark, true)));
        ASSERT_TRUE(back);
        EXPECT_TRUE(back->aquaColor() == kLight && back->darkAquaColor() == dark &&
                    !back->usesGlobalAppearance());
    }
    const QString aqua = "aquaColor";
    const QByteArray good = encoded(KVDynamicColor::lightColor(kLight, kDark));
    const QByteArray bad[] = {
        {},
        good.left(good.size() - 3),
        archive([&](QDataStream &s) {  // a text where a colour belongs
            s << kLight << quint32(1) << aqua << QString("QString") << aqua;
        }),
        archive([&](QDataStream &s) { s << kLight << quint32(1) << quint32(0x7FFFFFFE); })};
    for (const QByteArray &bytes : bad) EXPECT_FALSE(decoded(bytes)) << &bytes - bad;
}

}  // namespace

#include "KVDynamicColorTest.moc"
