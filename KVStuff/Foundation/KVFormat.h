// Cocoa-style format strings ("%@", "%1$@", "%d", "%ld", "%s", "%02X",
// "%1.1f", ...) filled with Cocoa semantics, so every text of the program can
// stand in the code exactly as it is written.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>
#include <cstdint>
#include <initializer_list>

// One argument of a format call. Objects ("%@") are strings or QVariants;
// numbers and C strings keep their own kind for "%d", "%X", "%f" and "%s".
class KVFormatArg {
public:
    enum class Kind { Object, Signed, Unsigned, Double, CString };

    KVFormatArg(const QString &s) : m_kind(Kind::Object), m_object(s) {}
    KVFormatArg(const QStringList &l) : m_kind(Kind::Object), m_object(l) {}
    KVFormatArg(const QVariantMap &m) : m_kind(Kind::Object), m_object(m) {}
    KVFormatArg(const QVariant &v) : m_kind(Kind::Object), m_object(v) {}
    KVFormatArg(const char *s) : m_kind(Kind::CString), m_cstring(s) {}
    KVFormatArg(bool v) : m_kind(Kind::Signed), m_signed(v) {}
    KVFormatArg(int v) : m_kind(Kind::Signed), m_signed(v) {}
    KVFormatArg(long v) : m_kind(Kind::Signed), m_signed(v) {}
    KVFormatArg(long long v) : m_kind(Kind::Signed), m_signed(v) {}
    KVFormatArg(unsigned v) : m_kind(Kind::Unsigned), m_unsigned(v) {}
    KVFormatArg(unsigned long v) : m_kind(Kind::Unsigned), m_unsigned(v) {}
    KVFormatArg(unsigned long long v) : m_kind(Kind::Unsigned), m_unsigned(v) {}
    KVFormatArg(char v) : m_kind(Kind::Signed), m_signed(v) {}
    KVFormatArg(double v) : m_kind(Kind::Double), m_double(v) {}

    Kind kind() const { return m_kind; }
    const QVariant &object() const { return m_object; }
    const char *cstring() const { return m_cstring; }
    long long toSigned() const;
    unsigned long long toUnsigned() const;
    double toDouble() const;
    // The text "%@" prints: a null string or an empty variant prints "(null)".
    QString toObjectString() const;

private:
    Kind m_kind;
    QVariant m_object;
    const char *m_cstring = nullptr;
    long long m_signed = 0;
    unsigned long long m_unsigned = 0;
    double m_double = 0.0;
};

namespace KVFormat {
QString format(const QString &format, std::initializer_list<KVFormatArg> args);
}

template <typename... Args>
QString kvFormat(const QString &format, const Args &...args) {
    return KVFormat::format(format, {KVFormatArg(args)...});
}
