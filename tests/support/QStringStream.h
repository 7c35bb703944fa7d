// Lets failure messages name the Qt strings they were about: EXPECT_... << text.
#pragma once

#include "QtPrinters.h"

inline std::ostream &operator<<(std::ostream &os, const QString &s) {
    return os << s.toStdString();
}
