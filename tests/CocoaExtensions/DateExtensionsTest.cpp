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

// Thai and Saudi locales prefer other calendars; weekday 1 is Sunday, 1 BC year 1 of era 0.
TEST(DateExtensionsTest, ComponentsAreGregorianInEveryLocaleAndFollowTheZone) {
    const QLocale saved;
    for (const char *name : {"ar_SA", "th_TH"}) {
        QLocale::setDefault(QLocale(QString::fromLatin1(name)));
        EXPECT_EQ(DateExtensions::year(utc(2024, 6, 15)), 2024) << name;
    }
    QLocale::setDefault(saved);
    EXPECT_EQ(year(utc(2024, 12, 31, 23, 30), zone("Europe/Berlin")), 2025);
    EXPECT_EQ(DateExtensions::year(QDateTime()), 0);

    const KVCalendarUnits units = KVCalendarUnit::Era | KVCalendarUnit::Year |
                                  KVCalendarUnit::Weekday | KVCalendarUnit::WeekdayOrdinal |
                                  KVCalendarUnit::Quarter;
    // clang-format off
    const std::pair<QDateTime, KVDateComponents> rows[] = {
        {utc(2024, 3, 10), {.era = 1, .year = 2024, .weekday = 1, .weekdayOrdinal = 2, .quarter = 1}},
        {utc(2024, 11, 30), {.era = 1, .year = 2024, .weekday = 7, .weekdayOrdinal = 5, .quarter = 4}},
        {QDateTime(QDate(-1, 6, 1), QTime(12, 0), Qt::UTC),
         {.era = 0, .year = 1, .weekday = 5, .weekdayOrdinal = 1, .quarter = 2}}};
    // clang-format on
    for (const auto &[date, expected] : rows)
        EXPECT_EQ(gregorianDateComponents(date, units, zone("UTC")), expected);
}

// The platform's classic format byte for byte, and the locale's styles, in the zone.
TEST(DateExtensionsTest, DescriptionsFollowTheFormatLocaleAndZone) {
    const QDateTime march = utc(2024, 3, 7, 13, 5, 9);
    const QLocale saved, us("en_US");
    const QString space(QChar(0x202F));  // ICU's narrow no-break space before AM/PM
    using S = KVDateStyle;
    // clang-format off
    for (const auto &[date, zoneId, text] : {
             std::tuple{march, "Europe/Berlin", "2024-03-07 14:05:09 +0100"},
             {utc(2024, 7, 7, 13, 5, 9), "Europe/Berlin", "2024-07-07 15:05:09 +0200"},
             {march, "America/New_York", "2024-03-07 08:05:09 -0500"},
             {march, "Asia/Kolkata", "2024-03-07 18:35:09 +0530"}})
        EXPECT_EQ(localDescription(date, zone(zoneId)), text);
    const std::tuple<S, S, const char *, QString> rows[] = {
        {S::Full, S::None, "UTC", "Thursday, March 7, 2024"}, {S::None, S::Medium, "UTC", "1:05:09" + space + "PM"},
        {S::None, S::Short, "America/New_York", "8:05" + space + "AM"},
        {S::Short, S::Short, "UTC", "3/7/24, 1:05" + space + "PM"}};
    // clang-format on
    for (const auto &[dateStyle, timeStyle, zoneId, expected] : rows)
        EXPECT_EQ(description(march, dateStyle, timeStyle, us, zone(zoneId)), expected);
    EXPECT_TRUE(DateExtensions::localDescription(QDateTime()).isNull());
    // No style at all says nothing, yet is no missing date.
    const QString none = description(march, S::None, S::None, us, zone("UTC"));
    EXPECT_TRUE(none.isEmpty() && !none.isNull());
    EXPECT_TRUE(DateExtensions::descriptionWithDateStyle(QDateTime(), S::Short).isNull());
    QLocale::setDefault(QLocale("de_DE"));
    EXPECT_EQ(DateExtensions::descriptionWithDateStyle(utc(2024, 3, 7), S::Long), "7. März 2024");
    QLocale::setDefault(saved);
}
