#include "DateExtensions.h"

#include <unicode/datefmt.h>
#include <unicode/simpletz.h>
#include <unicode/timezone.h>

#include <QLocale>
#include <QTimeZone>
#include <memory>

#include "DateExtensions_p.h"
#include "KVICU_p.h"

namespace {

QDateTime inZone(const QDateTime &date, const QTimeZone &zone) {
    return zone.isValid() ? date.toTimeZone(zone) : date.toLocalTime();
}

icu::Locale icuLocale(const QLocale &locale) {
    // Qt's "C" locale has no ICU name; the POSIX variant of English is its match.
    const QString name = locale.name();
    return icu::Locale(name == QLatin1String("C") ? "en_US_POSIX" : name.toUtf8().constData());
}

icu::DateFormat::EStyle icuStyle(KVDateStyle style) {
    switch (style) {
        case KVDateStyle::None:
            return icu::DateFormat::kNone;
        case KVDateStyle::Short:
            return icu::DateFormat::kShort;
        case KVDateStyle::Medium:
            return icu::DateFormat::kMedium;
        case KVDateStyle::Long:
            return icu::DateFormat::kLong;
        case KVDateStyle::Full:
            return icu::DateFormat::kFull;
    }
    return icu::DateFormat::kNone;
}

// ICU knows the IANA zones by name; a zone it cannot name (a POSIX TZ rule,
// say) keeps at least its offset at that instant.
icu::TimeZone *icuTimeZone(const QTimeZone &zone, const QDateTime &date) {
    if (!zone.isValid()) return icu::TimeZone::createDefault();
    const icu::UnicodeString id = toUnicodeString(QString::fromUtf8(zone.id()));
    icu::TimeZone *named = icu::TimeZone::createTimeZone(id);
    if (*named != icu::TimeZone::getUnknown()) return named;
    delete named;
    return new icu::SimpleTimeZone(zone.offsetFromUtc(date) * 1000, id);
}

bool wants(KVCalendarUnits units, KVCalendarUnit unit) { return units.testFlag(unit); }

}  // namespace

// ---- With explicit locale and zone ----

int DateExtensionsPrivate::year(const QDateTime &date, const QTimeZone &zone) {
    if (!date.isValid()) return 0;
    return DateExtensions::gregorianCalendar().partsFromDate(inZone(date, zone).date()).year;
}

KVDateComponents DateExtensionsPrivate::gregorianDateComponents(const QDateTime &date,
                                                                KVCalendarUnits units,
                                                                const QTimeZone &zone) {
    KVDateComponents components;
    if (!date.isValid()) return components;
    const QDateTime local = inZone(date, zone);
    const QCalendar &calendar = DateExtensions::gregorianCalendar();
    const QCalendar::YearMonthDay parts = calendar.partsFromDate(local.date());
    const QTime time = local.time();

    // Qt counts 1 BC as year -1; the platform as year 1 of era 0.
    if (wants(units, KVCalendarUnit::Era)) components.era = parts.year > 0 ? 1 : 0;
    if (wants(units, KVCalendarUnit::Year))
        components.year = parts.year > 0 ? parts.year : -parts.year;
    if (wants(units, KVCalendarUnit::Month)) components.month = parts.month;
    if (wants(units, KVCalendarUnit::Day)) components.day = parts.day;
    if (wants(units, KVCalendarUnit::Hour)) components.hour = time.hour();
    if (wants(units, KVCalendarUnit::Minute)) components.minute = time.minute();
    if (wants(units, KVCalendarUnit::Second)) components.second = time.second();
    if (wants(units, KVCalendarUnit::Nanosecond))
        components.nanosecond = qint64(time.msec()) * 1000000;
    // Qt numbers Monday 1 to Sunday 7; the Gregorian calendar here starts on Sunday.
    if (wants(units, KVCalendarUnit::Weekday))
        components.weekday = calendar.dayOfWeek(local.date()) % 7 + 1;
    if (wants(units, KVCalendarUnit::WeekdayOrdinal))
        components.weekdayOrdinal = (parts.day - 1) / 7 + 1;
    if (wants(units, KVCalendarUnit::Quarter)) components.quarter = (parts.month - 1) / 3 + 1;
    return components;
}

QString DateExtensionsPrivate::localDescription(const QDateTime &date, const QTimeZone &zone) {
    if (!date.isValid()) return QString();
    const QDateTime local = inZone(date, zone);
    const QDate day = local.date();
    const QTime time = local.time();
    const int offsetMinutes = local.offsetFromUtc() / 60;
    const int absolute = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
    return QString::asprintf("%04d-%02d-%02d %02d:%02d:%02d %c%02d%02d", day.year(), day.month(),
                             day.day(), time.hour(), time.minute(), time.second(),
                             offsetMinutes < 0 ? '-' : '+', absolute / 60, absolute % 60);
}

QString DateExtensionsPrivate::description(const QDateTime &date, KVDateStyle dateStyle,
                                           KVDateStyle timeStyle, const QLocale &locale,
                                           const QTimeZone &zone) {
    if (!date.isValid()) return QString();
    // ICU would fall back to a default pattern; the platform's formatter says nothing.
    if (dateStyle == KVDateStyle::None && timeStyle == KVDateStyle::None) return QString("");
    std::unique_ptr<icu::DateFormat> formatter(icu::DateFormat::createDateTimeInstance(
        icuStyle(dateStyle), icuStyle(timeStyle), icuLocale(locale)));
    if (!formatter) return QString("");
    formatter->adoptTimeZone(icuTimeZone(zone, date));
    icu::UnicodeString result;
    formatter->format(UDate(date.toMSecsSinceEpoch()), result);
    return fromUnicodeString(result);
}

// ---- Current locale, default time zone ----

int DateExtensions::year(const QDateTime &date) {
    return DateExtensionsPrivate::year(date, QTimeZone::systemTimeZone());
}

const QCalendar &DateExtensions::gregorianCalendar() {
    static const QCalendar calendar(QCalendar::System::Gregorian);
    return calendar;
}

KVDateComponents DateExtensions::gregorianDateComponents(const QDateTime &date,
                                                         KVCalendarUnits units) {
    return DateExtensionsPrivate::gregorianDateComponents(date, units, QTimeZone::systemTimeZone());
}

QString DateExtensions::localDescription(const QDateTime &date) {
    return DateExtensionsPrivate::localDescription(date, QTimeZone::systemTimeZone());
}

QString DateExtensions::descriptionWithDateStyle(const QDateTime &date, KVDateStyle dateStyle) {
    return DateExtensionsPrivate::description(date, dateStyle, KVDateStyle::None, QLocale(),
                                              QTimeZone::systemTimeZone());
}

QString DateExtensions::descriptionWithTimeStyle(const QDateTime &date, KVDateStyle timeStyle) {
    return DateExtensionsPrivate::description(date, KVDateStyle::None, timeStyle, QLocale(),
                                              QTimeZone::systemTimeZone());
}

QString DateExtensions::descriptionWithDateAndTimeStyle(const QDateTime &date, KVDateStyle style) {
    return DateExtensionsPrivate::description(date, style, style, QLocale(),
                                              QTimeZone::systemTimeZone());
}
