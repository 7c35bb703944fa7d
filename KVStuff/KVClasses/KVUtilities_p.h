// What the portable half of KVUtilities and its operating-system halves
// share. Not part of the library's interface; tests and the string helpers
// include it for the pieces they reuse.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>
#include <atomic>
#include <cstdint>
#include <functional>

#include "KVCompatibility.h"

namespace KVUtilitiesPrivate {

constexpr OSType fourCharCode(const char (&code)[5]) {
    return OSType(uint8_t(code[0])) << 24 | OSType(uint8_t(code[1])) << 16 |
           OSType(uint8_t(code[2])) << 8 | OSType(uint8_t(code[3]));
}

// The system-version questions: major, minor, bug-fix, and the BCD word.
inline constexpr OSType kMajorSelector = fourCharCode("sys1");
inline constexpr OSType kMinorSelector = fourCharCode("sys2");
inline constexpr OSType kBugFixSelector = fourCharCode("sys3");
inline constexpr OSType kBCDSelector = fourCharCode("sysv");

// Answers one selector; false when the system cannot.
using VersionLookup = std::function<bool(OSType selector, uint32_t &value)>;

// ---- Operating-system half ----

// The running system's answers.
bool systemVersionLookup(OSType selector, uint32_t &value);
double kitVersionNumber();

#if defined(Q_OS_LINUX)
// Answers from a kernel release such as "6.1.0-28-amd64": the leading digits
// of its first three dotted parts; the BCD word caps minor and bug-fix at 9.
bool kernelReleaseLookup(const QByteArray &release, OSType selector, uint32_t &value);
#endif

// ---- Portable half ----

uint64_t packVersion(uint32_t major, uint32_t minor, uint32_t bugFix);
uint32_t majorOf(uint64_t packed);
uint32_t minorOf(uint64_t packed);
uint32_t bugFixOf(uint64_t packed);

uint32_t hexSystemVersion(const VersionLookup &lookup);
uint64_t threePartVersion(const VersionLookup &lookup);
int decimalVersion(uint64_t packed);
// The decimal version, kept in the cache once it is non-zero.
int cachedDecimalVersion(std::atomic<int> &cache, const VersionLookup &lookup);
QString systemVersionString(uint64_t packed);

// The URL as seen by a system of the given decimal version, with the
// threshold used when "httpsMinSys" holds no accepted value.
QString safeHTTPS(const QString &url, int decimalVersion, int defaultThreshold = 101300);
// The platform's own threshold: the decimal version from which its systems
// speak current TLS.
int defaultHTTPSThreshold();

// The date in the named locale ("de_DE") and IANA time zone (empty: the
// default zone).
QString localizedDateString(const QString &date, const QString &localeName,
                            const QString &timeZoneId = QString());

// Five bits a character, least significant first, each plus 0x60.
QString unpackResourceType(uint32_t packed);

// Ordering of numeric search: runs of ASCII digits compare by value, other
// characters by UTF-16 code unit (folded with Qt::CaseInsensitive), and a
// proper prefix sorts first.
NSComparisonResult numericCompare(QStringView a, QStringView b,
                                  Qt::CaseSensitivity cs = Qt::CaseSensitive);

}  // namespace KVUtilitiesPrivate
