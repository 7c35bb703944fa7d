// A colour with one value for the light appearance and one for the dark, that
// answers every colour question as whichever of the two is in force when it
// is asked; and the ready-made colours of warning text and menu highlights.
// Meant for the main thread.
#pragma once

#include <QColor>
#include <QDataStream>
#include <QString>
#include <optional>

class QWidget;

// The names of the desktop's accent colours.
extern const QString KVAccentColorNameBlue;
extern const QString KVAccentColorNamePurple;
extern const QString KVAccentColorNamePink;
extern const QString KVAccentColorNameRed;
extern const QString KVAccentColorNameOrange;
extern const QString KVAccentColorNameYellow;
extern const QString KVAccentColorNameGreen;
extern const QString KVAccentColorNameGraphite;

class KVDynamicColor {
public:
    // An invalid QColor stands for "no colour": no dark colour means the
    // light one serves in both appearances.
    KVDynamicColor(const QColor &aquaColor, const QColor &darkAquaColor, bool global);

    // Following the appearance of what is being painted.
    static KVDynamicColor lightColor(const QColor &light, const QColor &darkColor);
    // Global: following the appearance of the whole desktop instead.
    static KVDynamicColor lightColor(const QColor &light, const QColor &darkColor, bool global);

    // The shared colour of warning text; the same object on every call.
    static KVDynamicColor &redWarningTextColor();
    // One of the eight accent-colour names, from the user default
    // "AppleAccentColor"; blue when it is absent or unknown.
    static QString accentColorName();
    // The highlight of menus (following the desktop) and of menu items
    // (following what is being painted) in the current accent colour; one
    // shared object per accent colour.
    static KVDynamicColor &menuHighlightColor();
    static KVDynamicColor &menuItemHighlightColor();

    // Sets the flag and answers this colour itself, for chaining.
    KVDynamicColor &useGlobalAppearance(bool global);
    bool usesGlobalAppearance() const { return m_useGlobalAppearance; }
    QColor aquaColor() const { return m_aquaColor; }
    QColor darkAquaColor() const { return m_darkAquaColor; }

    // The colour in force, decided afresh on every call: in the widget being
    // painted (a widget of the light appearance counts as light), else in the
    // application's palette when it has one of its own, else in the desktop's
    // colour scheme. Global colours skip the widget.
    QColor effectiveColor() const;
    // The colour in force for painting that widget.
    QColor effectiveColor(const QWidget *widget) const;
    operator QColor() const { return effectiveColor(); }

    // Archiving: the colour in force, then the light colour under the key
    // "aquaColor" and the dark one, when there is one, under "darkAquaColor".
    // The global flag is not kept: a decoded colour follows what is painted.
    void encodeWithCoder(QDataStream &out) const;
    // Nothing, and the stream marked corrupt, for anything but that form
    // with colours as its values.
    static std::optional<KVDynamicColor> initWithCoder(QDataStream &in);
    // Decoding checks each value's kind before reading it.
    static constexpr bool supportsSecureCoding() { return true; }

    // Every question QColor answers, answered by the colour in force. What
    // they make (lighter, toHsv ...) is a plain colour of that moment.
    bool isValid() const { return effectiveColor().isValid(); }
    QColor::Spec spec() const { return effectiveColor().spec(); }
    QString name(QColor::NameFormat format = QColor::HexRgb) const {
        return effectiveColor().name(format);
    }
    int alpha() const { return effectiveColor().alpha(); }
    float alphaF() const { return effectiveColor().alphaF(); }
    int red() const { return effectiveColor().red(); }
    int green() const { return effectiveColor().green(); }
    int blue() const { return effectiveColor().blue(); }
    float redF() const { return effectiveColor().redF(); }
    float greenF() const { return effectiveColor().greenF(); }
    float blueF() const { return effectiveColor().blueF(); }
    void getRgb(int *r, int *g, int *b, int *a = nullptr) const {
        effectiveColor().getRgb(r, g, b, a);
    }
    void getRgbF(float *r, float *g, float *b, float *a = nullptr) const {
        effectiveColor().getRgbF(r, g, b, a);
    }
    QRgba64 rgba64() const { return effectiveColor().rgba64(); }
    QRgb rgba() const { return effectiveColor().rgba(); }
    QRgb rgb() const { return effectiveColor().rgb(); }
    int hue() const { return effectiveColor().hue(); }
    int saturation() const { return effectiveColor().saturation(); }
    int hsvHue() const { return effectiveColor().hsvHue(); }
    int hsvSaturation() const { return effectiveColor().hsvSaturation(); }
    int value() const { return effectiveColor().value(); }
    float hueF() const { return effectiveColor().hueF(); }
    float saturationF() const { return effectiveColor().saturationF(); }
    float hsvHueF() const { return effectiveColor().hsvHueF(); }
    float hsvSaturationF() const { return effectiveColor().hsvSaturationF(); }
    float valueF() const { return effectiveColor().valueF(); }
    void getHsv(int *h, int *s, int *v, int *a = nullptr) const {
        effectiveColor().getHsv(h, s, v, a);
    }
    void getHsvF(float *h, float *s, float *v, float *a = nullptr) const {
        effectiveColor().getHsvF(h, s, v, a);
    }
    int cyan() const { return effectiveColor().cyan(); }
    int magenta() const { return effectiveColor().magenta(); }
    int yellow() const { return effectiveColor().yellow(); }
    int black() const { return effectiveColor().black(); }
    float cyanF() const { return effectiveColor().cyanF(); }
    float magentaF() const { return effectiveColor().magentaF(); }
    float yellowF() const { return effectiveColor().yellowF(); }
    float blackF() const { return effectiveColor().blackF(); }
    void getCmyk(int *c, int *m, int *y, int *k, int *a = nullptr) const {
        effectiveColor().getCmyk(c, m, y, k, a);
    }
    void getCmykF(float *c, float *m, float *y, float *k, float *a = nullptr) const {
        effectiveColor().getCmykF(c, m, y, k, a);
    }
    int hslHue() const { return effectiveColor().hslHue(); }
    int hslSaturation() const { return effectiveColor().hslSaturation(); }
    int lightness() const { return effectiveColor().lightness(); }
    float hslHueF() const { return effectiveColor().hslHueF(); }
    float hslSaturationF() const { return effectiveColor().hslSaturationF(); }
    float lightnessF() const { return effectiveColor().lightnessF(); }
    void getHsl(int *h, int *s, int *l, int *a = nullptr) const {
        effectiveColor().getHsl(h, s, l, a);
    }
    void getHslF(float *h, float *s, float *l, float *a = nullptr) const {
        effectiveColor().getHslF(h, s, l, a);
    }
    QColor toRgb() const { return effectiveColor().toRgb(); }
    QColor toHsv() const { return effectiveColor().toHsv(); }
    QColor toCmyk() const { return effectiveColor().toCmyk(); }
    QColor toHsl() const { return effectiveColor().toHsl(); }
    QColor toExtendedRgb() const { return effectiveColor().toExtendedRgb(); }
    QColor convertTo(QColor::Spec colorSpec) const { return effectiveColor().convertTo(colorSpec); }
    QColor lighter(int f = 150) const { return effectiveColor().lighter(f); }
    QColor darker(int f = 200) const { return effectiveColor().darker(f); }
    bool operator==(const QColor &c) const { return effectiveColor() == c; }
    bool operator!=(const QColor &c) const { return effectiveColor() != c; }

private:
    QColor m_aquaColor;
    QColor m_darkAquaColor;
    bool m_useGlobalAppearance = false;
};
