#include "KVDescription.h"

#include <QDateTime>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

namespace {

QString indent(int level) { return QString(4 * level, QLatin1Char(' ')); }

bool isBareWord(const QString &s) {
    if (s.isEmpty()) return false;
    for (QChar c : s) {
        const char16_t u = c.unicode();
        const bool plain = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') ||
                           (u >= '0' && u <= '9') || u == '_' || u == '$';
        if (!plain) return false;
    }
    return true;
}

// A string inside a collection: bare when it is a plain word, else quoted
// with C escapes and non-ASCII characters as \Uxxxx, as the platform prints.
QString quoted(const QString &s) {
    if (isBareWord(s)) return s;
    QString out = QStringLiteral("\"");
    for (QChar c : s) {
        const char16_t u = c.unicode();
        if (u == '"' || u == '\\') {
            out += '\\';
            out += c;
        } else if (u == '\n') {
            out += QStringLiteral("\\n");
        } else if (u == '\r') {
            out += QStringLiteral("\\r");
        } else if (u == '\t') {
            out += QStringLiteral("\\t");
        } else if (u < 0x20 || u > 0x7e) {
            out += QStringLiteral("\\U%1").arg(uint(u), 4, 16, QLatin1Char('0'));
        } else {
            out += c;
        }
    }
    return out + '"';
}

bool isList(const QVariant &v) {
    const int type = v.typeId();
    return type == QMetaType::QStringList || type == QMetaType::QVariantList;
}
bool isMap(const QVariant &v) { return v.typeId() == QMetaType::QVariantMap; }

QString scalar(const QVariant &v) {
    switch (v.typeId()) {
        case QMetaType::UnknownType:
            return QStringLiteral("(null)");
        case QMetaType::QString: {
            const QString s = v.toString();
            return s.isNull() ? QStringLiteral("(null)") : s;
        }
        case QMetaType::Bool:
            return v.toBool() ? QStringLiteral("1") : QStringLiteral("0");
        case QMetaType::QDateTime:
            return v.toDateTime().toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss +0000"));
        case QMetaType::QByteArray: {
            const QByteArray hex = v.toByteArray().toHex();
            QString out = QStringLiteral("<");
            for (qsizetype i = 0; i < hex.size(); i += 8) {
                if (i > 0) out += ' ';
                out += QString::fromLatin1(hex.mid(i, 8));
            }
            return out + '>';
        }
        default:
            return v.toString();
    }
}

QString describeAt(const QVariant &v, int level);

QString element(const QVariant &v, int level) {
    if (isList(v) || isMap(v)) return describeAt(v, level);
    const QString text = scalar(v);
    return v.typeId() == QMetaType::QString ? quoted(text) : text;
}

QString describeAt(const QVariant &v, int level) {
    if (isList(v)) {
        const QVariantList items = v.toList();
        QStringList lines;
        for (const QVariant &item : items) lines << indent(level + 1) + element(item, level + 1);
        return indent(level) + "(\n" + lines.join(QStringLiteral(",\n")) +
               (lines.isEmpty() ? "" : "\n") + indent(level) + ")";
    }
    if (isMap(v)) {
        const QVariantMap map = v.toMap();
        QString out = indent(level) + "{\n";
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            out += indent(level + 1) + quoted(it.key()) + " = " + element(it.value(), level + 1) +
                   ";\n";
        return out + indent(level) + "}";
    }
    return scalar(v);
}

}  // namespace

QString KVDescription::describe(const QVariant &object) { return describeAt(object, 0); }
