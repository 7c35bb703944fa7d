// The date helpers with their locale and time zone made explicit. Not part of
// the library's interface: the public functions pass the current locale and
// the default time zone, and tests pass fixed ones.
#pragma once

#include <QDateTime>
#include <QLocale>
#include <QString>
#include <QTimeZone>

#include "DateExtensions.h"

namespace DateExtensionsPrivate {

// An invalid zone means the process's local time.
int year(const QDateTime &date, const QTimeZone &zone);
KVDateComponents gregorianDateComponents(const QDateTime &date, KVCalendarUnits units,
                                         const QTimeZone &zone);
QString localDescription(const QDateTime &date, const QTimeZone &zone);
// Both styles None gives the empty string, as the platform's formatter does.
QString description(const QDateTime &date, KVDateStyle dateStyle, KVDateStyle timeStyle,
                    const QLocale &locale, const QTimeZone &zone);

}  // namespace DateExtensionsPrivate
