// Date helpers: the year, a shared Gregorian calendar, calendar components and
// localised descriptions of a point in time. An invalid QDateTime stands for
// a missing date and gives the zero value of each result. The current locale
// is QLocale(): the system's unless the program chose another.
#pragma once

#include <QCalendar>
#include <QDateTime>
#include <QFlags>
#include <QString>
#include <limits>

// The date and time styles of the locale's formats; None leaves that half out.
enum class KVDateStyle { None, Short, Medium, Long, Full };

// The components gregorianDateComponents can fill; the bit values are the
// platform's unit flags, so stored masks keep their meaning.
enum class KVCalendarUnit : unsigned {
    Era = 1u << 1,
    Year = 1u << 2,
    Month = 1u << 3,
    Day = 1u << 4,
    Hour = 1u << 5,
    Minute = 1u << 6,
    Second = 1u << 7,
    Weekday = 1u << 9,
    WeekdayOrdinal = 1u << 10,
    Quarter = 1u << 11,
    Nanosecond = 1u << 15,
};
Q_DECLARE_FLAGS(KVCalendarUnits, KVCalendarUnit)
Q_DECLARE_OPERATORS_FOR_FLAGS(KVCalendarUnits)

// A component that was not asked for.
inline constexpr qint64 KVUndefinedDateComponent = std::numeric_limits<qint64>::max();

// Gregorian components of a date in the default time zone. Era 1 is AD and
// 0 BC, with years counted 1, 2, ... inside each era; weekday 1 is Sunday;
// weekdayOrdinal says which occurrence of its weekday in the month the day is.
struct KVDateComponents {
    qint64 era = KVUndefinedDateComponent;
    qint64 year = KVUndefinedDateComponent;
    qint64 month = KVUndefinedDateComponent;
    qint64 day = KVUndefinedDateComponent;
    qint64 hour = KVUndefinedDateComponent;
    qint64 minute = KVUndefinedDateComponent;
    qint64 second = KVUndefinedDateComponent;
    qint64 nanosecond = KVUndefinedDateComponent;
    qint64 weekday = KVUndefinedDateComponent;
    qint64 weekdayOrdinal = KVUndefinedDateComponent;
    qint64 quarter = KVUndefinedDateComponent;

    friend bool operator==(const KVDateComponents &, const KVDateComponents &) = default;
};

namespace DateExtensions {

// The Gregorian year in the default time zone, whatever calendar the current
// locale prefers; 0 for an invalid date.
int year(const QDateTime &date);

// One Gregorian calendar for the whole program, made on first use.
const QCalendar &gregorianCalendar();

// The requested components from the shared calendar in the default time
// zone; the others stay KVUndefinedDateComponent.
KVDateComponents gregorianDateComponents(const QDateTime &date, KVCalendarUnits units);

// "2024-03-07 14:05:09 +0100" in the default time zone: the platform's
// classic calendar format "%Y-%m-%d %H:%M:%S %z", ASCII digits in any locale.
QString localDescription(const QDateTime &date);

// The current locale's date format of that style, without a time.
QString descriptionWithDateStyle(const QDateTime &date, KVDateStyle dateStyle);
// The current locale's time format of that style, without a date.
QString descriptionWithTimeStyle(const QDateTime &date, KVDateStyle timeStyle);
// Date and time, both in the one style given.
QString descriptionWithDateAndTimeStyle(const QDateTime &date, KVDateStyle style);

}  // namespace DateExtensions
