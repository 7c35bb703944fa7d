#include "KVDynamicColor.h"

#include <QApplication>
#include <QEvent>
#include <QPointer>
#include <QThread>
#include <QWidget>
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "KVDynamicColor_p.h"
#include "KVLog.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVUtilities_p.h"
#include "ViewExtensions_p.h"

using namespace KVDynamicColorPrivate;

const QString KVAccentColorNameBlue = QStringLiteral("Blue");
const QString KVAccentColorNamePurple = QStringLiteral("Purple");
const QString KVAccentColorNamePink = QStringLiteral("Pink");
const QString KVAccentColorNameRed = QStringLiteral("Red");
const QString KVAccentColorNameOrange = QStringLiteral("Orange");
const QString KVAccentColorNameYellow = QStringLiteral("Yellow");
const QString KVAccentColorNameGreen = QStringLiteral("Green");
const QString KVAccentColorNameGraphite = QStringLiteral("Graphite");

namespace {

const QString kAquaColorKey = QStringLiteral("aquaColor");
const QString kDarkAquaColorKey = QStringLiteral("darkAquaColor");
// Written before each archived value, and checked before it is read, so that
// nothing but a colour is ever decoded.
const QString kColorClassName = QStringLiteral("QColor");
// More entries than the two keys is no archive of ours.
constexpr quint32 kMaxArchivedEntries = 2;

// Qt has no "current drawing appearance": the widget a paint event is being
// delivered to stands in for it. An application-wide filter sees each paint
// event just before the widget does; the first event after it for anything
// outside that widget ends the painting.
class PaintTracker : public QObject {
public:
    QPointer<const QWidget> painted;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override {
        if (event->type() == QEvent::Paint && watched->isWidgetType()) {
            painted = static_cast<const QWidget *>(watched);
        } else if (painted && !isInsidePainted(watched)) {
            painted = nullptr;
        }
        return false;
    }

private:
    bool isInsidePainted(const QObject *object) const {
        if (!object->isWidgetType()) return false;
        const auto *widget = static_cast<const QWidget *>(object);
        return widget == painted || painted->isAncestorOf(widget);
    }
};

PaintTracker *paintTracker() {
    static PaintTracker *tracker = nullptr;
    // Made on the main thread, where paint events are delivered, and kept for
    // the program's life.
    if (!tracker && qApp && QThread::currentThread() == qApp->thread()) {
        tracker = new PaintTracker;
        qApp->installEventFilter(tracker);
    }
    return tracker;
}

struct AccentIndex {
    int index;
    const QString &name;
};

// The stored "AppleAccentColor" indices; blue is the default when absent.
const std::array<AccentIndex, 7> kAccentIndices{{{-1, KVAccentColorNameGraphite},
                                                 {0, KVAccentColorNameRed},
                                                 {1, KVAccentColorNameOrange},
                                                 {2, KVAccentColorNameYellow},
                                                 {3, KVAccentColorNameGreen},
                                                 {5, KVAccentColorNamePurple},
                                                 {6, KVAccentColorNamePink}}};

// The stored value as a number: a number, or (the settings file keeps no
// types) a text that is a whole decimal number.
std::optional<qint64> storedInteger(const QVariant &stored) {
    if (stored.typeId() != QMetaType::QString) return KVUtilitiesPrivate::numberValue(stored);
    bool ok = false;
    const qint64 value = stored.toString().trimmed().toLongLong(&ok);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

struct HighlightRow {
    const QString &accent;
    std::array<double, 3> light;
    std::array<double, 3> dark;
};

using HighlightTable = std::array<HighlightRow, 8>;

const HighlightTable kMenuHighlights{{
    {KVAccentColorNameBlue, {0.16, 0.43, 0.95}, {0.04, 0.29, 0.76}},
    {KVAccentColorNamePurple, {0.57, 0.26, 0.58}, {0.44, 0.18, 0.45}},
    {KVAccentColorNamePink, {0.95, 0.31, 0.61}, {0.73, 0.16, 0.43}},
    {KVAccentColorNameRed, {0.85, 0.25, 0.29}, {0.76, 0.18, 0.22}},
    {KVAccentColorNameOrange, {0.95, 0.51, 0.22}, {0.73, 0.34, 0.08}},
    {KVAccentColorNameYellow, {0.97, 0.71, 0.25}, {0.76, 0.53, 0.11}},
    {KVAccentColorNameGreen, {0.42, 0.73, 0.32}, {0.26, 0.54, 0.17}},
    {KVAccentColorNameGraphite, {0.59, 0.59, 0.59}, {0.34, 0.34, 0.34}},
}};

// Components in 255ths.
const HighlightTable kMenuItemHighlights{{
    {KVAccentColorNameBlue, {60, 139, 246}, {12, 111, 225}},
    {KVAccentColorNamePurple, {169, 99, 170}, {135, 59, 135}},
    {KVAccentColorNamePink, {248, 114, 176}, {218, 74, 142}},
    {KVAccentColorNameRed, {229, 95, 100}, {199, 54, 60}},
    {KVAccentColorNameOrange, {248, 154, 79}, {218, 117, 31}},
    {KVAccentColorNameYellow, {252, 198, 90}, {222, 164, 42}},
    {KVAccentColorNameGreen, {128, 198, 107}, {90, 165, 66}},
    {KVAccentColorNameGraphite, {162, 162, 162}, {124, 128, 131}},
}};

QColor rgb(const std::array<double, 3> &c, double scale) {
    return QColor::fromRgbF(float(c[0] / scale), float(c[1] / scale), float(c[2] / scale), 1.0f);
}

// One colour per accent name, in the table's order.
using HighlightColors = std::vector<std::pair<QString, KVDynamicColor>>;

HighlightColors makeHighlightColors(const HighlightTable &table, double scale, bool global) {
    HighlightColors colors;
    for (const HighlightRow &row : table)
        colors.emplace_back(row.accent,
                            KVDynamicColor(rgb(row.light, scale), rgb(row.dark, scale), global));
    return colors;
}

// Systems before the dark appearance have one menu highlight.
KVDynamicColor &selectedMenuItemColor() {
    static KVDynamicColor color(QPalette().color(QPalette::Highlight), QColor(), false);
    return color;
}

KVDynamicColor &highlightFor(HighlightColors &colors) {
    if (!KVUtilities::mojaveOrNewer()) return selectedMenuItemColor();
    // Every accent name has its row, so the search never misses.
    const QString accent = KVDynamicColor::accentColorName();
    return std::find_if(colors.begin(), colors.end(),
                        [&](const auto &entry) { return entry.first == accent; })
        ->second;
}

bool readColorEntry(QDataStream &in, QString *key, QColor *color) {
    QString className;
    in >> *key >> className;
    if (in.status() != QDataStream::Ok || className != kColorClassName) return false;
    in >> *color;
    return in.status() == QDataStream::Ok;
}

void writeColorEntry(QDataStream &out, const QString &key, const QColor &color) {
    out << key << kColorClassName << color;
}

}  // namespace

// ---- Deciding the appearance ----

const QWidget *KVDynamicColorPrivate::widgetBeingPainted() {
    const PaintTracker *tracker = paintTracker();
    return tracker ? tracker->painted.data() : nullptr;
}

bool KVDynamicColorPrivate::isDarkPalette(const QPalette &palette) {
    return palette.color(QPalette::WindowText).lightness() >
           palette.color(QPalette::Window).lightness();
}

std::optional<bool> KVDynamicColorPrivate::widgetIsDark(const QWidget *widget) {
    for (const QWidget *w = widget; w; w = w->parentWidget()) {
        if (w->property(ViewExtensionsPrivate::kLightAppearanceProperty).toBool()) return false;
        if (w->testAttribute(Qt::WA_SetPalette)) return isDarkPalette(w->palette());
        if (w->isWindow()) break;
    }
    return std::nullopt;
}

bool KVDynamicColorPrivate::applicationIsDark() {
    if (qApp && QCoreApplication::testAttribute(Qt::AA_SetPalette))
        return isDarkPalette(QGuiApplication::palette());
    return desktopPrefersDark().value_or(false);
}

// ---- Making colours ----

KVDynamicColor::KVDynamicColor(const QColor &aquaColor, const QColor &darkAquaColor, bool global)
    : m_aquaColor(aquaColor), m_darkAquaColor(darkAquaColor), m_useGlobalAppearance(global) {
    paintTracker();
}

KVDynamicColor KVDynamicColor::lightColor(const QColor &light, const QColor &darkColor) {
    return KVDynamicColor(light, darkColor, false);
}

KVDynamicColor KVDynamicColor::lightColor(const QColor &light, const QColor &darkColor,
                                          bool global) {
    return KVDynamicColor(light, darkColor, global);
}

KVDynamicColor &KVDynamicColor::useGlobalAppearance(bool global) {
    m_useGlobalAppearance = global;
    return *this;
}

QColor KVDynamicColor::effectiveColor() const {
    return effectiveColor(m_useGlobalAppearance ? nullptr : widgetBeingPainted());
}

QColor KVDynamicColor::effectiveColor(const QWidget *widget) const {
    if (!KVUtilities::mojaveOrNewer() || !m_darkAquaColor.isValid()) return m_aquaColor;
    const std::optional<bool> widgetDark =
        m_useGlobalAppearance ? std::nullopt : widgetIsDark(widget);
    // The application is asked only when no widget decided: it may ask the
    // portal.
    return (widgetDark ? *widgetDark : applicationIsDark()) ? m_darkAquaColor : m_aquaColor;
}

// ---- Ready-made colours ----

KVDynamicColor &KVDynamicColor::redWarningTextColor() {
    static KVDynamicColor color = lightColor(QColor::fromRgbF(0.75f, 0.0f, 0.0f, 1.0f),
                                             QColor::fromRgbF(1.0f, 0.2f, 0.0f, 1.0f));
    return color;
}

QString KVDynamicColorPrivate::accentColorNameForValue(const QVariant &stored) {
    // The last unknown index logged, so that one asked again is not.
    static qint64 unknownColorIndex = 0;
    const std::optional<qint64> index = storedInteger(stored);
    if (!index) return KVAccentColorNameBlue;
    for (const AccentIndex &known : kAccentIndices)
        if (known.index == *index) return known.name;
    if (*index != unknownColorIndex) {
        kvLog(QStringLiteral("*** unknown accent color index: %ld"), *index);
        unknownColorIndex = *index;
    }
    return KVAccentColorNameBlue;
}

QString KVDynamicColorPrivate::nearestAccentColorName(const QColor &accent) {
    // Measured against the light menu highlights, which show each accent.
    const auto distance = [&](const HighlightRow &row) {
        return std::pow(accent.redF() - row.light[0], 2) +
               std::pow(accent.greenF() - row.light[1], 2) +
               std::pow(accent.blueF() - row.light[2], 2);
    };
    return std::min_element(kMenuHighlights.begin(), kMenuHighlights.end(),
                            [&](const HighlightRow &a, const HighlightRow &b) {
                                return distance(a) < distance(b);
                            })
        ->accent;
}

QString KVDynamicColor::accentColorName() {
    const QVariant stored =
        KVUserDefaults::standardUserDefaults().objectForKey(QStringLiteral("AppleAccentColor"));
    // Without a choice of the user's own, the desktop's accent colour counts.
    if (!stored.isValid())
        if (const std::optional<QColor> accent = desktopAccentColor())
            return nearestAccentColorName(*accent);
    return accentColorNameForValue(stored);
}

KVDynamicColor &KVDynamicColor::menuHighlightColor() {
    static HighlightColors colors = makeHighlightColors(kMenuHighlights, 1.0, true);
    return highlightFor(colors);
}

KVDynamicColor &KVDynamicColor::menuItemHighlightColor() {
    static HighlightColors colors = makeHighlightColors(kMenuItemHighlights, 255.0, false);
    return highlightFor(colors);
}

// ---- Archiving ----

void KVDynamicColor::encodeWithCoder(QDataStream &out) const {
    out << effectiveColor();
    const bool hasDark = m_darkAquaColor.isValid();
    out << quint32(hasDark ? 2 : 1);
    writeColorEntry(out, kAquaColorKey, m_aquaColor);
    if (hasDark) writeColorEntry(out, kDarkAquaColorKey, m_darkAquaColor);
}

std::optional<KVDynamicColor> KVDynamicColor::initWithCoder(QDataStream &in) {
    QColor base;
    quint32 count = 0;
    in >> base >> count;
    bool valid = in.status() == QDataStream::Ok && count <= kMaxArchivedEntries;
    QColor aqua;
    QColor darkAqua;
    for (quint32 i = 0; valid && i < count; ++i) {
        QString key;
        QColor color;
        valid = readColorEntry(in, &key, &color);
        if (key == kAquaColorKey) aqua = color;
        if (key == kDarkAquaColorKey) darkAqua = color;
    }
    if (!valid) {
        if (in.status() == QDataStream::Ok) in.setStatus(QDataStream::ReadCorruptData);
        return std::nullopt;
    }
    return KVDynamicColor(aqua, darkAqua, false);
}
