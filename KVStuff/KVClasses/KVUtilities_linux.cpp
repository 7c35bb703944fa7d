// The Linux half: the system version is the kernel release.
#include <sys/utsname.h>

#include <QList>
#include <algorithm>

#include "KVUtilities_p.h"

namespace {

// The leading digits of the index-th dotted part; false when it has none.
bool releaseNumber(const QByteArray &release, int index, uint32_t &value) {
    const QList<QByteArray> parts = release.split('.');
    if (index >= parts.size()) return false;
    const QByteArray &part = parts[index];
    qsizetype length = 0;
    uint64_t number = 0;
    while (length < part.size() && part[length] >= '0' && part[length] <= '9') {
        number = std::min<uint64_t>(number * 10 + uint64_t(part[length] - '0'), UINT32_MAX);
        ++length;
    }
    if (length == 0) return false;
    value = uint32_t(number);
    return true;
}

}  // namespace

bool KVUtilitiesPrivate::kernelReleaseLookup(const QByteArray &release, OSType selector,
                                             uint32_t &value) {
    if (selector == kMajorSelector) return releaseNumber(release, 0, value);
    if (selector == kMinorSelector) return releaseNumber(release, 1, value);
    if (selector == kBugFixSelector) return releaseNumber(release, 2, value);
    if (selector != kBCDSelector) return false;

    uint32_t major = 0, minor = 0, bugFix = 0;
    if (!releaseNumber(release, 0, major)) return false;
    releaseNumber(release, 1, minor);
    releaseNumber(release, 2, bugFix);
    // One BCD digit each for minor and bug-fix, two for major.
    major = std::min<uint32_t>(major, 99);
    minor = std::min<uint32_t>(minor, 9);
    bugFix = std::min<uint32_t>(bugFix, 9);
    value = (major / 10) << 12 | (major % 10) << 8 | minor << 4 | bugFix;
    return true;
}

bool KVUtilitiesPrivate::systemVersionLookup(OSType selector, uint32_t &value) {
    struct utsname names;
    if (uname(&names) != 0) return false;
    return kernelReleaseLookup(QByteArray(names.release), selector, value);
}

// No application kit here; this number turns the appearance code paths on.
double KVUtilitiesPrivate::kitVersionNumber() { return 2299.0; }

// The decimal version here is the kernel's (6.1.0 is 60100), which says
// nothing of TLS: every kernel this builds on has it, so nothing is downgraded
// unless "httpsMinSys" asks for it.
int KVUtilitiesPrivate::defaultHTTPSThreshold() { return 0; }
