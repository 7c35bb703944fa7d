// System and version information: the running system's version in its several
// forms, this program's own version strings, the ordering of version strings,
// and small helpers that depend on the system version. Statics only.
#pragma once

#include <QString>
#include <cstdint>

#include "KVCompatibility.h"

class KVUtilities {
public:
    KVUtilities() = delete;

    // The system's BCD version word (0x1049 for 10.4.9); 0 when unknown.
    static uint32_t hexSystemVersion();
    // Major in bits 0-15, minor in bits 16-31, bug-fix in bits 32-47.
    static uint64_t threePartVersion();
    // major * 10000 + minor * 100 + bug-fix; remembered once it is non-zero.
    static int decimalSystemVersion();
    // "13.0" stays two parts; "13.2.1" gets three.
    static QString systemVersionString();

    // The main bundle's CFBundleVersion / CFBundleExecutable, "" when absent.
    static QString versionString();
    static QString applicationName();
    // The leading run of digits and dots: "2.1b3" -> "2.1".
    static QString plainVersionOf(const QString &version);
    static QString plainVersionString();

    // Dotted numbers, then an optional stage letter and number, where for equal
    // numbers p < d < a < b < f < release: "2.5b3" < "2.5".
    static NSComparisonResult compareVersion(const QString &a, const QString &withVersion);

    // "2024-03-07" as a short date in the user's locale; null when unparsable.
    static QString localizedDateString(const QString &date);

    // The URL with http instead of https on systems too old for modern TLS.
    static QString safeHTTPS(const QString &url);

    // How many resources of this program's own bundle type the main bundle holds.
    static qsizetype appType();

    // The application-kit version number the system reports.
    static double kitVersionNumber();

    // System-release predicates on the running kit version, and on a given one.
    static bool pantherOrOlder();
    static bool leopardOrNewer();
    static bool snowleopardOrNewer();
    static bool lionOrNewer();
    static bool mountainLionOrNewer();
    static bool mavericksOrNewer();
    static bool yosemiteOrNewer();
    static bool elCapitanOrNewer();
    static bool sierraOrNewer();
    static bool highSierraOrNewer();
    static bool mojaveOrNewer();
    static bool catalinaOrNewer();
    static bool bigSurOrNewer();
    static bool montereyOrNewer();
    static bool venturaOrNewer();

    static bool pantherOrOlder(double kitVersion);
    static bool leopardOrNewer(double kitVersion);
    static bool snowleopardOrNewer(double kitVersion);
    static bool lionOrNewer(double kitVersion);
    static bool mountainLionOrNewer(double kitVersion);
    static bool mavericksOrNewer(double kitVersion);
    static bool yosemiteOrNewer(double kitVersion);
    static bool elCapitanOrNewer(double kitVersion);
    static bool sierraOrNewer(double kitVersion);
    static bool highSierraOrNewer(double kitVersion);
    static bool mojaveOrNewer(double kitVersion);
    static bool catalinaOrNewer(double kitVersion);
    static bool bigSurOrNewer(double kitVersion);
    static bool montereyOrNewer(double kitVersion);
    static bool venturaOrNewer(double kitVersion);
};
