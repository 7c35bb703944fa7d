// Lets GoogleTest print Qt strings readably in failure messages.
#pragma once

#include <QStringList>
#include <ostream>

inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }
inline void PrintTo(const QStringList &list, std::ostream *os) {
    *os << "{ ";
    for (const QString &s : list) PrintTo(s, os), *os << ' ';
    *os << '}';
}
