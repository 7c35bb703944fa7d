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

// Tests that change the program's current locale put the old one back.
class DateExtensionsLocaleTest : public testing::Test {
protected:
    void TearDown() override { QLocale::setDefault(saved_); }

private:
    QLocale saved_;
};

}  // namespace

TEST_F(DateExtensionsLocaleTest, YearIsGregorianInEveryLocale) {
    // Thai and Saudi locales prefer the Buddhist and the Islamic calendar.
    for (const char *name : {"en_US", "de_DE", "ar_SA", "th_TH"}) {
        QLocale::setDefault(QLocale(QString::fromLatin1(name)));
        EXPECT_EQ(DateExtensions::year(utc(2024, 6, 15)), 2024) << name;
        EXPECT_EQ(
            DateExtensions::gregorianDateComponents(utc(2024, 6, 15), KVCalendarUnit::Year).year,
            2024)
            << name;
    }
}

TEST(DateExtensionsYear, FollowsTheTimeZoneAcrossNewYear) {
    EXPECT_EQ(year(utc(2024, 12, 31, 23, 30), zone("UTC")), 2024);
    EXPECT_EQ(year(utc(2024, 12, 31, 23, 30), zone("Europe/Berlin")), 2025);
    EXPECT_EQ(DateExtensions::year(QDateTime()), 0);
}

TEST(DateExtensionsComponents, FillsOnlyTheRequestedUnitsInTheZone) {
    KVDateComponents expected;
    expected.year = 2024;
    expected.day = 7;
    expected.hour = 15;  // Berlin is one hour ahead in March
    EXPECT_EQ(
        gregorianDateComponents(utc(2024, 3, 7, 14, 5, 9),
                                KVCalendarUnit::Year | KVCalendarUnit::Day | KVCalendarUnit::Hour,
                                zone("Europe/Berlin")),
        expected);
}

TEST(DateExtensionsComponents, CountsWeekdaysFromSundayAndTheirOccurrenceInTheMonth) {
    const KVCalendarUnits units =
        KVCalendarUnit::Weekday | KVCalendarUnit::WeekdayOrdinal | KVCalendarUnit::Quarter;
    // 10 March 2024 was the second Sunday, 30 November the fifth Saturday.
    const KVDateComponents sunday = gregorianDateComponents(utc(2024, 3, 10), units, zone("UTC"));
    EXPECT_EQ(sunday.weekday, 1);
    EXPECT_EQ(sunday.weekdayOrdinal, 2);
    EXPECT_EQ(sunday.quarter, 1);
    const KVDateComponents saturday =
        gregorianDateComponents(utc(2024, 11, 30), units, zone("UTC"));
    EXPECT_EQ(saturday.weekday, 7);
    EXPECT_EQ(saturday.weekdayOrdinal, 5);
    EXPECT_EQ(saturday.quarter, 4);
}

TEST(DateExtensionsComponents, CountsOneBeforeChristAsYearOneOfEraZero) {
    const KVDateComponents components =
        gregorianDateComponents(QDateTime(QDate(-1, 6, 1), QTime(12, 0), Qt::UTC),
                                KVCalendarUnit::Era | KVCalendarUnit::Year, zone("UTC"));
    EXPECT_EQ(components.era, 0);
    EXPECT_EQ(components.year, 1);
}

TEST(DateExtensionsLocalDescription, UsesTheClassicCalendarFormatWithTheZoneOffset) {
    const QDateTime march = utc(2024, 3, 7, 13, 5, 9);
    EXPECT_EQ(localDescription(march, zone("Europe/Berlin")), "2024-03-07 14:05:09 +0100");
    EXPECT_EQ(localDescription(utc(2024, 7, 7, 13, 5, 9), zone("Europe/Berlin")),
              "2024-07-07 15:05:09 +0200");
    EXPECT_EQ(localDescription(march, zone("America/New_York")), "2024-03-07 08:05:09 -0500");
    EXPECT_EQ(localDescription(march, zone("Asia/Kolkata")), "2024-03-07 18:35:09 +0530");
    EXPECT_TRUE(DateExtensions::localDescription(QDateTime()).isNull());
}

TEST(DateExtensionsStyles, FormatsDateAndTimeStylesOfTheLocaleInTheZone) {
    const QLocale us("en_US");
    const QDateTime date = utc(2024, 3, 7, 14, 5, 9);
    const QString space(QChar(0x202F));  // ICU's narrow no-break space before AM/PM
    using S = KVDateStyle;
    EXPECT_EQ(description(date, S::Short, S::None, us, zone("UTC")), "3/7/24");
    EXPECT_EQ(description(date, S::Medium, S::None, us, zone("UTC")), "Mar 7, 2024");
    EXPECT_EQ(description(date, S::Full, S::None, us, zone("UTC")), "Thursday, March 7, 2024");
    EXPECT_EQ(description(date, S::None, S::Medium, us, zone("UTC")), "2:05:09" + space + "PM");
    EXPECT_EQ(description(date, S::None, S::Short, us, zone("America/New_York")),
              "9:05" + space + "AM");
    EXPECT_EQ(description(date, S::Short, S::Short, us, zone("UTC")),
              "3/7/24, 2:05" + space + "PM");
}

TEST(DateExtensionsStyles, NoStyleAtAllGivesAnEmptyString) {
    const QString text = description(utc(2024, 3, 7), KVDateStyle::None, KVDateStyle::None,
                                     QLocale("en_US"), zone("UTC"));
    EXPECT_TRUE(text.isEmpty());
    EXPECT_FALSE(text.isNull());
    EXPECT_TRUE(DateExtensions::descriptionWithDateStyle(QDateTime(), KVDateStyle::Short).isNull());
}

TEST_F(DateExtensionsLocaleTest, PublicDescriptionsUseTheCurrentLocale) {
    const QDateTime noon = utc(2024, 3, 7);  // 7 March in every zone from -11 to +11 hours
    QLocale::setDefault(QLocale("de_DE"));
    EXPECT_EQ(DateExtensions::descriptionWithDateStyle(noon, KVDateStyle::Long), "7. März 2024");
    EXPECT_EQ(DateExtensions::descriptionWithDateAndTimeStyle(noon, KVDateStyle::None), "");
    QLocale::setDefault(QLocale("en_US"));
    const QString time = DateExtensions::descriptionWithTimeStyle(noon, KVDateStyle::Short);
    EXPECT_TRUE(time.endsWith("AM") || time.endsWith("PM")) << time.toStdString();
}
