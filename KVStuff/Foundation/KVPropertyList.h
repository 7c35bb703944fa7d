// Property lists in XML and binary form, as QVariant trees: dictionaries as
// QVariantMap, arrays as QVariantList, strings, integers, reals, booleans,
// dates (QDateTime) and data (QByteArray).
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

namespace KVPropertyList {
enum class Format { Xml, Binary };

// Reads either form; an invalid QVariant when the bytes are no property list.
QVariant fromData(const QByteArray &data);
QVariant fromFile(const QString &path);
QByteArray toData(const QVariant &value, Format format);
bool writeFile(const QVariant &value, const QString &path, Format format);
}  // namespace KVPropertyList
