#include "KVFormat.h"

#include <QByteArray>
#include <cstdint>
#include <cstdio>
#include <type_traits>
#include <vector>

#include "KVCLocale_p.h"
#include "KVDescription.h"

long long KVFormatArg::toSigned() const {
    switch (m_kind) {
        case Kind::Signed:
            return m_signed;
        case Kind::Unsigned:
            return static_cast<long long>(m_unsigned);
        case Kind::Double:
            return static_cast<long long>(m_double);
        case Kind::Object:
            return m_object.toLongLong();
        case Kind::CString:
            return 0;
    }
    return 0;
}

unsigned long long KVFormatArg::toUnsigned() const {
    return m_kind == Kind::Unsigned ? m_unsigned : static_cast<unsigned long long>(toSigned());
}

double KVFormatArg::toDouble() const {
    switch (m_kind) {
        case Kind::Double:
            return m_double;
        case Kind::Signed:
            return double(m_signed);
        case Kind::Unsigned:
            return double(m_unsigned);
        case Kind::Object:
            return m_object.toDouble();
        case Kind::CString:
            return 0.0;
    }
    return 0.0;
}

QString KVFormatArg::toObjectString() const {
    switch (m_kind) {
        case Kind::Object:
            return KVDescription::describe(m_object);
        case Kind::CString:
            return m_cstring ? QString::fromUtf8(m_cstring) : QStringLiteral("(null)");
        case Kind::Double:
            return QString::number(m_double);
        case Kind::Unsigned:
            return QString::number(m_unsigned);
        case Kind::Signed:
            return QString::number(m_signed);
    }
    return {};
}

namespace {

// One conversion specification, "%[n$][flags][width][.precision][length]c".
struct Spec {
    int position = 0;  // 1-based argument position, 0 = next in order
    QByteArray flags;
    int width = -1;
    int precision = -1;
    QByteArray length;
    char conversion = 0;
};

bool isFlag(QChar c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }
bool isLength(QChar c) {
    return c == 'h' || c == 'l' || c == 'q' || c == 'L' || c == 'z' || c == 't' || c == 'j';
}

// Reads a run of digits at i; -1 when there is none.
int readNumber(const QString &s, qsizetype &i) {
    if (i >= s.size() || !s[i].isDigit()) return -1;
    int n = 0;
    while (i < s.size() && s[i].isDigit()) n = n * 10 + s[i++].digitValue();
    return n;
}

// Parses the conversion after a "%" at i; returns false for an
// incomplete one, which is then printed as it stands.
bool parseSpec(const QString &s, qsizetype &i, Spec &spec) {
    qsizetype j = i;
    int n = readNumber(s, j);
    if (n > 0 && j < s.size() && s[j] == '$') {
        spec.position = n;
        i = j + 1;
    }
    while (i < s.size() && isFlag(s[i])) spec.flags += char(s[i++].unicode());
    spec.width = readNumber(s, i);
    if (i < s.size() && s[i] == '.') {
        ++i;
        spec.precision = qMax(0, readNumber(s, i));
    }
    while (i < s.size() && isLength(s[i])) spec.length += char(s[i++].unicode());
    if (i >= s.size()) return false;
    spec.conversion = char(s[i++].unicode());
    return true;
}

QByteArray printfPattern(const Spec &spec, const char *length, char conversion) {
    QByteArray pattern = "%" + spec.flags;
    if (spec.width >= 0) pattern += QByteArray::number(spec.width);
    if (spec.precision >= 0) pattern += "." + QByteArray::number(spec.precision);
    return pattern + length + conversion;
}

template <typename T>
QString printNumber(const QByteArray &pattern, T value) {
    const KVCLocaleScope cLocale;
    const int size = std::snprintf(nullptr, 0, pattern.constData(), value);
    if (size < 0) return {};
    std::vector<char> buffer(size_t(size) + 1);
    std::snprintf(buffer.data(), buffer.size(), pattern.constData(), value);
    return QString::fromUtf8(buffer.data(), size);
}

// Without a length modifier "%d" and "%X" take a 32-bit int, as in C; "h"
// and "hh" narrow further, "l", "ll", "q", "z" take 64 bits.
template <typename T>
T toWidth(const Spec &spec, T value) {
    using S = std::make_signed_t<T>;
    using U = std::make_unsigned_t<T>;
    const bool isSigned = std::is_signed_v<T>;
    if (spec.length == "hh") return isSigned ? T(S(int8_t(value))) : T(U(uint8_t(value)));
    if (spec.length == "h") return isSigned ? T(S(int16_t(value))) : T(U(uint16_t(value)));
    if (spec.length.isEmpty()) return isSigned ? T(S(int32_t(value))) : T(U(uint32_t(value)));
    return value;
}

QString padded(const QString &text, const Spec &spec) {
    if (spec.width < 0 || text.size() >= spec.width) return text;
    const QString fill(spec.width - text.size(), QLatin1Char(' '));
    return spec.flags.contains('-') ? text + fill : fill + text;
}

QString convert(const Spec &spec, const KVFormatArg *arg) {
    static const KVFormatArg missing(QString{});
    const KVFormatArg &a = arg ? *arg : missing;
    switch (spec.conversion) {
        case '@':
            return padded(a.toObjectString(), spec);
        case 's': {
            QString text = a.toObjectString();
            if (spec.precision >= 0) text.truncate(spec.precision);
            return padded(text, spec);
        }
        case 'c':
            return padded(QString(QChar(char16_t(a.toSigned()))), spec);
        case 'd':
        case 'i':
            return printNumber(printfPattern(spec, "ll", 'd'), toWidth(spec, a.toSigned()));
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            return printNumber(printfPattern(spec, "ll", spec.conversion),
                               toWidth(spec, a.toUnsigned()));
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return printNumber(printfPattern(spec, "", spec.conversion), a.toDouble());
        case 'p':
            return printNumber(printfPattern(spec, "ll", 'x'), a.toUnsigned()).prepend("0x");
    }
    return {};
}

}  // namespace

QString KVFormat::format(const QString &format, std::initializer_list<KVFormatArg> args) {
    const std::vector<KVFormatArg> list(args);
    QString out;
    out.reserve(format.size() + 16 * qsizetype(list.size()));
    size_t next = 0;
    for (qsizetype i = 0; i < format.size();) {
        const QChar c = format[i];
        if (c != '%') {
            out += c;
            ++i;
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            out += '%';
            i += 2;
            continue;
        }
        const qsizetype start = i++;
        Spec spec;
        if (!parseSpec(format, i, spec)) {
            out += format.mid(start);
            break;
        }
        const size_t index = spec.position > 0 ? size_t(spec.position - 1) : next++;
        out += convert(spec, index < list.size() ? &list[index] : nullptr);
    }
    return out;
}
