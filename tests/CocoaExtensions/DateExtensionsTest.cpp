#include <gtest/gtest.h>

#include <QLocale>
#include <QTimeZone>

#include "DateExtensions.h"
#include "DateExtensions_p.h"

using namespace DateExtensionsPrivate;

namespace {
QDateTime utc(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}
QTimeZone zone(const char *id) { return QTimeZone(QByteArray(id)); }
}  // namespace

// Thai and Saudi locales prefer the Buddhist and the Islamic calendar; the
// year stays Gregorian and follows the zone across New Year. Weekday 1 is
// Sunday, 1 BC is year 1 of era 0, and units not asked for stay undefined.
TEST(DateExtensionsTest, ComponentsAreGregorianInEveryLocaleAndFollowTheZone) {
    const QLocale saved;
    const QDateTime june = utc(2024, 6, 15);
    for (const char *name : {"en_US", "de_DE", "ar_SA", "th_TH"}) {
        QLocale::setDefault(QLocale(QString::fromLatin1(name)));
        EXPECT_EQ(DateExtensions::year(june), 2024) << name;
        EXPECT_EQ(DateExtensions::gregorianDateComponents(june, KVCalendarUnit::Year).year, 2024);
    }
    QLocale::setDefault(saved);
    EXPECT_EQ(year(utc(2024, 12, 31, 23, 30), zone("UTC")), 2024);
    EXPECT_EQ(year(utc(2024, 12, 31, 23, 30), zone("Europe/Berlin")), 2025);
    EXPECT_EQ(DateExtensions::year(QDateTime()), 0);

    const KVCalendarUnits units = KVCalendarUnit::Era | KVCalendarUnit::Year |
                                  KVCalendarUnit::Weekday | KVCalendarUnit::WeekdayOrdinal |
                                  KVCalendarUnit::Quarter;
    const std::pair<QDateTime, KVDateComponents> rows[] = {
        // The second Sunday and the fifth Saturday of their months.
        {utc(2024, 3, 10),
         {.era = 1, .year = 2024, .weekday = 1, .weekdayOrdinal = 2, .quarter = 1}},
        {utc(2024, 11, 30),
         {.era = 1, .year = 2024, .weekday = 7, .weekdayOrdinal = 5, .quarter = 4}},
        {QDateTime(QDate(-1, 6, 1), QTime(12, 0), Qt::UTC),
         {.era = 0, .year = 1, .weekday = 5, .weekdayOrdinal = 1, .quarter = 2}}};
    for (const auto &[date, expected] : rows)
        EXPECT_EQ(gregorianDateComponents(date, units, zone("UTC")), expected);
    EXPECT_EQ(
        gregorianDateComponents(utc(2024, 3, 7, 14, 5, 9),
                                KVCalendarUnit::Day | KVCalendarUnit::Hour, zone("Europe/Berlin")),
        (KVDateComponents{.day = 7, .hour = 15}));
}

// The platform's classic format, byte for byte, with the zone's offset.
TEST(DateExtensionsTest, LocalDescriptionUsesTheClassicCalendarFormat) {
    const QDateTime march = utc(2024, 3, 7, 13, 5, 9);
    EXPECT_EQ(localDescription(march, zone("Europe/Berlin")), "2024-03-07 14:05:09 +0100");
    EXPECT_EQ(localDescription(utc(2024, 7, 7, 13, 5, 9), zone("Europe/Berlin")),
              "2024-07-07 15:05:09 +0200");
    EXPECT_EQ(localDescription(march, zone("America/New_York")), "2024-03-07 08:05:09 -0500");
    EXPECT_EQ(localDescription(march, zone("Asia/Kolkata")), "2024-03-07 18:35:09 +0530");
    EXPECT_TRUE(DateExtensions::localDescription(QDateTime()).isNull());
}

TEST(DateExtensionsTest, StylesFollowTheLocaleAndZone) {
    const QLocale saved, us("en_US");
    const QDateTime date = utc(2024, 3, 7, 14, 5, 9);
    const QString space(QChar(0x202F));  // ICU's narrow no-break space before AM/PM
    using S = KVDateStyle;
    const std::tuple<S, S, const char *, QString> rows[] = {
        {S::Short, S::None, "UTC", "3/7/24"},
        {S::Full, S::None, "UTC", "Thursday, March 7, 2024"},
        {S::None, S::Medium, "UTC", "2:05:09" + space + "PM"},
        {S::None, S::Short, "America/New_York", "9:05" + space + "AM"},
        {S::Short, S::Short, "UTC", "3/7/24, 2:05" + space + "PM"}};
    for (const auto &[dateStyle, timeStyle, zoneId, expected] : rows)
        EXPECT_EQ(description(date, dateStyle, timeStyle, us, zone(zoneId)), expected);
    // No style at all says nothing, yet is no missing date.
    const QString none = description(date, S::None, S::None, us, zone("UTC"));
    EXPECT_TRUE(none.isEmpty() && !none.isNull());
    EXPECT_TRUE(DateExtensions::descriptionWithDateStyle(QDateTime(), S::Short).isNull());

    const QDateTime noon = utc(2024, 3, 7);  // 7 March in every zone from -11 to +11 hours
    QLocale::setDefault(QLocale("de_DE"));
    EXPECT_EQ(DateExtensions::descriptionWithDateStyle(noon, S::Long), "7. März 2024");
    EXPECT_EQ(DateExtensions::descriptionWithDateAndTimeStyle(noon, S::None), "");
    QLocale::setDefault(us);
    const QString time = DateExtensions::descriptionWithTimeStyle(noon, S::Short);
    EXPECT_TRUE(time.endsWith("AM") || time.endsWith("PM")) << qPrintable(time);
    QLocale::setDefault(saved);
}
