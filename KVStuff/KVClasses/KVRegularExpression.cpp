#include "KVRegularExpression.h"

#include <unicode/regex.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <limits>
#include <mutex>

#include "KVFormat.h"
#include "KVICU_p.h"

namespace {

// Steps of ICU's match engine (each about ten thousand operations) that one
// replacement may take, counted over all its matches: a fixed allowance plus
// a share per unit of input. A linear pattern stays far below it on any
// length; one that backtracks without end stops within about a second on
// short text.
int32_t matchTimeLimit(qsizetype length) {
    return int32_t(std::min<qsizetype>(1000 + length / 16, std::numeric_limits<int32_t>::max()));
}

uint32_t icuFlags(NSRegularExpressionOptions options) {
    static constexpr std::pair<unsigned, uint32_t> kFlags[] = {
        {NSRegularExpressionCaseInsensitive, UREGEX_CASE_INSENSITIVE},
        {NSRegularExpressionAllowCommentsAndWhitespace, UREGEX_COMMENTS},
        {NSRegularExpressionIgnoreMetacharacters, UREGEX_LITERAL},
        {NSRegularExpressionDotMatchesLineSeparators, UREGEX_DOTALL},
        {NSRegularExpressionAnchorsMatchLines, UREGEX_MULTILINE},
        {NSRegularExpressionUseUnixLineSeparators, UREGEX_UNIX_LINES},
        {NSRegularExpressionUseUnicodeWordBoundaries, UREGEX_UWORD},
    };
    uint32_t flags = 0;
    for (const auto &[option, flag] : kFlags)
        if (options & option) flags |= flag;
    return flags;
}

QString errorText(UErrorCode status, const QString &pattern, int32_t offset = -1) {
    if (offset < 0) return kvFormat("%s in \"%@\"", u_errorName(status), pattern);
    return kvFormat("%s at offset %d in \"%@\"", u_errorName(status), offset, pattern);
}

// The classes this build can hand out by name.
const KVRegexClass kClasses[] = {
    {"NSRegularExpression", &NSRegularExpression::regularExpressionWithPattern},
};

const KVRegexClass *classNamed(const char *name) {
    for (const KVRegexClass &c : kClasses)
        if (qstrcmp(c.name, name) == 0) return &c;
    return nullptr;
}

}  // namespace

struct NSRegularExpression::Private {
    QString pattern;
    std::unique_ptr<icu::RegexPattern> compiled;
};

NSRegularExpression::NSRegularExpression(std::unique_ptr<Private> p) : d(std::move(p)) {}
NSRegularExpression::~NSRegularExpression() = default;

std::shared_ptr<NSRegularExpression> NSRegularExpression::regularExpressionWithPattern(
    const QString &pattern, NSRegularExpressionOptions options, QString *error) {
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    auto p = std::make_unique<Private>();
    p->pattern = pattern;
    p->compiled.reset(icu::RegexPattern::compile(toUnicodeString(pattern), icuFlags(options),
                                                 parseError, status));
    if (U_FAILURE(status) || !p->compiled) {
        if (error) *error = errorText(status, pattern, parseError.offset);
        return nullptr;
    }
    return std::shared_ptr<NSRegularExpression>(new NSRegularExpression(std::move(p)));
}

qsizetype NSRegularExpression::replaceMatchesInString(QString &string, unsigned options,
                                                      NSRange range, const QString &templ,
                                                      QString *error) const {
    Q_UNUSED(options);
    const qsizetype start = std::clamp<qsizetype>(range.location, 0, string.size());
    const qsizetype end = std::clamp<qsizetype>(start + range.length, start, string.size());
    // The matcher reads the string in place; nothing is copied in.
    const icu::UnicodeString input(false, reinterpret_cast<const char16_t *>(string.constData()),
                                   int32_t(string.size()));
    const icu::UnicodeString replacement = toUnicodeString(templ);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(d->compiled->matcher(input, status));
    if (U_SUCCESS(status)) matcher->setTimeLimit(matchTimeLimit(string.size()), status);
    if (U_SUCCESS(status)) matcher->region(start, end, status);
    icu::UnicodeString result;
    qsizetype count = 0;
    while (U_SUCCESS(status) && matcher->find(status) && U_SUCCESS(status)) {
        matcher->appendReplacement(result, replacement, status);
        ++count;
    }
    if (U_FAILURE(status)) {
        if (error) *error = errorText(status, d->pattern);
        return -1;
    }
    if (count == 0) return 0;
    matcher->appendTail(result);
    string = fromUnicodeString(result);
    return count;
}

QString NSRegularExpression::stringByReplacingMatchesInString(const QString &string,
                                                              unsigned options, NSRange range,
                                                              const QString &templ,
                                                              QString *error) const {
    QString text = string;
    return replaceMatchesInString(text, options, range, templ, error) < 0 ? QString() : text;
}

const KVRegexClass *KVRegularExpression::regexClass() {
    static std::mutex classLock;
    static bool regexKnown = false;
    static const KVRegexClass *regexClass = nullptr;
    std::lock_guard lock(classLock);
    if (!regexKnown) {
        regexClass = classNamed("NSRegularExpression");
        regexKnown = true;
    }
    return regexClass;
}

bool KVRegularExpression::regexAvailable() { return regexClass() != nullptr; }

std::shared_ptr<NSRegularExpression> KVRegularExpression::regularExpressionWithPattern(
    const QString &pattern, NSRegularExpressionOptions options, QString *error) {
    const KVRegexClass *c = regexClass();
    return c ? c->regularExpressionWithPattern(pattern, options, error) : nullptr;
}
