// Regular expressions: the platform's expression class (ICU's engine, with
// its pattern and "$1" template syntax) and KVRegularExpression, which finds
// that class by name once, so the library still loads where it is missing.
#pragma once

#include <QString>
#include <memory>

enum NSRegularExpressionOptions : unsigned {
    NSRegularExpressionCaseInsensitive = 1 << 0,
    NSRegularExpressionAllowCommentsAndWhitespace = 1 << 1,
    NSRegularExpressionIgnoreMetacharacters = 1 << 2,
    NSRegularExpressionDotMatchesLineSeparators = 1 << 3,
    NSRegularExpressionAnchorsMatchLines = 1 << 4,
    NSRegularExpressionUseUnixLineSeparators = 1 << 5,
    NSRegularExpressionUseUnicodeWordBoundaries = 1 << 6,
};

// A range of UTF-16 units.
struct NSRange {
    qsizetype location = 0;
    qsizetype length = 0;
};

// A compiled expression. Matching gives up after a bounded amount of work,
// so a pattern that would backtrack without end reports an error instead.
class NSRegularExpression {
public:
    ~NSRegularExpression();
    // Null, with the reason in *error when asked, for a pattern ICU rejects.
    static std::shared_ptr<NSRegularExpression> regularExpressionWithPattern(
        const QString &pattern, NSRegularExpressionOptions options, QString *error);

    // The string with every match inside the range replaced by the template;
    // null, with the reason in *error, when matching fails.
    QString stringByReplacingMatchesInString(const QString &string, unsigned options, NSRange range,
                                             const QString &templ, QString *error = nullptr) const;
    // The same in place; the number of matches replaced, -1 on failure (the
    // string is then unchanged).
    qsizetype replaceMatchesInString(QString &string, unsigned options, NSRange range,
                                     const QString &templ, QString *error = nullptr) const;

private:
    struct Private;
    explicit NSRegularExpression(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

// A class found at run time: its name and its factory.
struct KVRegexClass {
    const char *name;
    std::shared_ptr<NSRegularExpression> (*regularExpressionWithPattern)(
        const QString &pattern, NSRegularExpressionOptions options, QString *error);
};

class KVRegularExpression {
public:
    KVRegularExpression() = delete;
    // The class named "NSRegularExpression", looked up once (under a lock)
    // and remembered, also when there is none.
    static const KVRegexClass *regexClass();
    static bool regexAvailable();
    // Null when the class is missing (the error is then left alone) or the
    // pattern is rejected.
    static std::shared_ptr<NSRegularExpression> regularExpressionWithPattern(
        const QString &pattern, NSRegularExpressionOptions options, QString *error);
};
