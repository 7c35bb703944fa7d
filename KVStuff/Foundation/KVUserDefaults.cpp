#include "KVUserDefaults.h"

#include <QCoreApplication>
#include <QSettings>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>

#include "KVBundle.h"
#include "KVCLocale_p.h"
#include "KVPath.h"

namespace {

std::mutex s_argumentsLock;
std::optional<QVariantMap> s_argumentDomain;

QVariantMap parseArguments(const QStringList &argv) {
    QVariantMap domain;
    for (qsizetype i = 1; i < argv.size(); ++i) {
        const QString &word = argv[i];
        if (word.size() < 2 || !word.startsWith('-')) continue;
        if (i + 1 < argv.size() && !argv[i + 1].startsWith('-')) {
            domain.insert(word.mid(1), argv[i + 1]);
            ++i;
        }
    }
    return domain;
}

QString applicationDomain() {
    const QString identifier = KVBundle::mainBundle().bundleIdentifier();
    if (!identifier.isEmpty()) return identifier;
    return KVPath::lastPathComponent(KVBundle::executableFilePath());
}

// Skips blanks, then returns the index of the first character after an
// optional sign; *negative tells which sign was read.
qsizetype skipBlanksAndSign(const QString &text, bool *negative) {
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace()) ++i;
    *negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) *negative = text[i++] == '-';
    return i;
}

}  // namespace

KVUserDefaults &KVUserDefaults::standardUserDefaults() {
    static KVUserDefaults defaults(applicationDomain());
    return defaults;
}

KVUserDefaults::KVUserDefaults(const QString &suiteName) : m_domain(suiteName) {}

void KVUserDefaults::setArgumentDomain(const QStringList &argv) {
    std::lock_guard lock(s_argumentsLock);
    s_argumentDomain = parseArguments(argv);
}

QVariantMap KVUserDefaults::argumentDomain() {
    std::lock_guard lock(s_argumentsLock);
    if (!s_argumentDomain) s_argumentDomain = parseArguments(QCoreApplication::arguments());
    return *s_argumentDomain;
}

QVariant KVUserDefaults::objectForKey(const QString &key) const {
    const QVariantMap arguments = argumentDomain();
    const auto it = arguments.constFind(key);
    if (it != arguments.cend()) return *it;
    if (m_domain.isEmpty()) return {};
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, m_domain).value(key);
}

QString KVUserDefaults::stringForKey(const QString &key) const {
    const QVariant value = objectForKey(key);
    return value.canConvert<QString>() ? value.toString() : QString();
}

bool KVUserDefaults::boolForKey(const QString &key) const {
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString) return boolValue(value.toString());
    return value.toBool();
}

qint64 KVUserDefaults::integerForKey(const QString &key) const {
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString) return integerValue(value.toString());
    return value.toLongLong();
}

double KVUserDefaults::doubleForKey(const QString &key) const {
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString) return doubleValue(value.toString());
    return value.toDouble();
}

void KVUserDefaults::setObject(const QVariant &value, const QString &key) {
    if (m_domain.isEmpty()) return;
    QSettings settings(QSettings::NativeFormat, QSettings::UserScope, m_domain);
    if (value.isValid()) {
        settings.setValue(key, value);
    } else {
        settings.remove(key);
    }
}

void KVUserDefaults::removeObjectForKey(const QString &key) { setObject(QVariant(), key); }

void KVUserDefaults::synchronize() {
    if (!m_domain.isEmpty())
        QSettings(QSettings::NativeFormat, QSettings::UserScope, m_domain).sync();
}

bool KVUserDefaults::boolValue(const QString &text) {
    bool negative = false;
    qsizetype i = skipBlanksAndSign(text, &negative);
    while (i < text.size() && text[i] == '0') ++i;
    if (i >= text.size()) return false;
    const QChar c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

qint64 KVUserDefaults::integerValue(const QString &text) {
    bool negative = false;
    qsizetype i = skipBlanksAndSign(text, &negative);
    qint64 value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const int digit = text[i].digitValue();
        if (value > (std::numeric_limits<qint64>::max() - digit) / 10)
            return negative ? std::numeric_limits<qint64>::min()
                            : std::numeric_limits<qint64>::max();
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

double KVUserDefaults::doubleValue(const QString &text) {
    const QByteArray latin = text.toLatin1();
    const KVCLocaleScope cLocale;
    const double value = std::strtod(latin.constData(), nullptr);
    return std::isfinite(value) ? value : 0.0;
}
