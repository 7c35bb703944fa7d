#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <QFile>
#include <QMap>

#include "KVBundle.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVUtilities_p.h"
#include "LogCapture.h"

using namespace KVUtilitiesPrivate;

namespace {
// A system that answers only the selectors it is given.
VersionLookup answering(QMap<OSType, uint32_t> answers) {
    return [answers](OSType selector, uint32_t &value) {
        if (!answers.contains(selector)) return false;
        value = answers.value(selector);
        return true;
    };
}
}  // namespace

// Numbers compare by value, not as text (nor as integers that overflow);
// stages p < d < a < b < f < release, unknown and upper-case letters like p.
TEST(KVUtilitiesTest, VersionsAndNumericTextsOrderByValue) {
    const QStringList ascending{"1.0p1", "1.0d1", "1.0a1", "1.0a9", "1.0b1", "1.0b10", "1.0f1",
                                "1.0",   "1.0.0", "1.0.1", "1.9",   "1.10",  "10.0"};
    for (qsizetype i = 0; i < ascending.size(); ++i) {
        for (qsizetype j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(KVUtilities::compareVersion(ascending[i], ascending[j]), (i > j) - (i < j))
                << qPrintable(ascending[i] + " " + ascending[j]);
    }
    EXPECT_EQ(KVUtilities::compareVersion("1.0X1", "1.0p1"), NSOrderedSame);
    EXPECT_EQ(KVUtilities::compareVersion("1.0B1", "1.0p1"), NSOrderedSame);
    EXPECT_EQ(numericCompare(u"a007", u"a7"), NSOrderedSame);
    EXPECT_EQ(numericCompare(u"99999999999999999999", u"100000000000000000000"),
              NSOrderedAscending);
    EXPECT_EQ(numericCompare(u"a", u"B", Qt::CaseInsensitive), NSOrderedAscending);
    const std::pair<const char *, const char *> plain[] = {
        {"2.1b3", "2.1"}, {"4.0.2 (512)", "4.0.2"}, {"v2", ""}, {"", ""}, {"10.4.11", "10.4.11"}};
    for (const auto &[version, expected] : plain)
        EXPECT_EQ(KVUtilities::plainVersionOf(version), expected);

    // The mixed rounding of the release predicates is deliberate: the oldest
    // round the kit version down, one threshold is a fraction.
    EXPECT_TRUE(KVUtilities::pantherOrOlder(743.9) && !KVUtilities::pantherOrOlder(744.0));
    EXPECT_TRUE(!KVUtilities::leopardOrNewer(824.9) && KVUtilities::leopardOrNewer(825.0));
    EXPECT_TRUE(!KVUtilities::highSierraOrNewer(1537.1) && KVUtilities::highSierraOrNewer(1537.2));
    EXPECT_TRUE(KVUtilities::venturaOrNewer() && !KVUtilities::pantherOrOlder());
}

// From the three selectors (a missing minor or bug-fix is logged), else from
// the BCD word; here from the kernel release, with one BCD digit each for
// minor and bug-fix. Only a non-zero version is remembered.
TEST(KVUtilitiesTest, SystemVersionFromSelectorsOrTheBCDWord) {
    {
        LogCapture log;
        EXPECT_EQ(threePartVersion(answering({{kMajorSelector, 13}, {kBCDSelector, 0x1049}})), 13u);
        EXPECT_EQ(log.messages(), (QStringList{"cannot get minor version number",
                                               "cannot get bugfix version number"}));
    }
    EXPECT_EQ(systemVersionString(threePartVersion(
                  answering({{kMajorSelector, 13}, {kMinorSelector, 2}, {kBugFixSelector, 1}}))),
              "13.2.1");
    EXPECT_EQ(systemVersionString(packVersion(13, 0, 0)), "13.0");
    const uint64_t fromBCD = threePartVersion(answering({{kBCDSelector, 0x1049}}));
    EXPECT_EQ(decimalVersion(fromBCD), 100409);
    EXPECT_EQ(systemVersionString(fromBCD), "10.4.9");
    EXPECT_EQ(threePartVersion(answering({})), 0u);
    std::atomic<int> cache{0};
    EXPECT_EQ(cachedDecimalVersion(cache, answering({})), 0);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1049}})), 100409);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1130}})), 100409);

    // clang-format off
    const std::tuple<const char *, OSType, int64_t> rows[] = {  // -1: no answer
        {"6.1.0-28-amd64", kMinorSelector, 1}, {"6.1.0-28-amd64", kBCDSelector, 0x0610},
        {"5.15.153.1-generic", kBCDSelector, 0x0599}, {"6.1", kBugFixSelector, -1},
        {"rc.1", kMajorSelector, -1}};
    // clang-format on
    for (const auto &[release, selector, expected] : rows) {
        uint32_t value = 12345;
        EXPECT_EQ(kernelReleaseLookup(release, selector, value) ? int64_t(value) : -1, expected);
    }
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(majorOf(KVUtilities::threePartVersion()), uint32_t(atoi(names.release)));
    EXPECT_EQ(KVUtilities::decimalSystemVersion(), decimalVersion(KVUtilities::threePartVersion()));
}

// A configured threshold counts only from 100000 to 109999; the kernel's
// version here (6.1.0 is 60100) lies below every accepted one.
TEST(KVUtilitiesTest, SafeHTTPSDowngradesOnlyBelowTheThreshold) {
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    const QString url = "https://example.org/?b=https:", plain = "http://example.org/?b=https:";
    // clang-format off
    const std::tuple<int, int, bool> rows[] = {  // configured (0: none), system, downgraded
        {0, 101299, true}, {0, 101300, false}, {101000, 101200, false}, {109999, 109998, true},
        {110000, 101300, false}, {99999, 101299, true}};
    // clang-format on
    for (const auto &[configured, system, downgraded] : rows) {
        defaults.removeObjectForKey("httpsMinSys");
        if (configured) defaults.setObject(configured, "httpsMinSys");
        EXPECT_EQ(safeHTTPS(url, system), downgraded ? plain : url) << configured;
    }
    defaults.removeObjectForKey("httpsMinSys");
    EXPECT_EQ(safeHTTPS("ftp://example.org", 90000), "ftp://example.org");
    EXPECT_EQ(KVUtilities::safeHTTPS(url), url);
    defaults.setObject(109999, "httpsMinSys");
    EXPECT_EQ(KVUtilities::safeHTTPS(url), plain);
    defaults.removeObjectForKey("httpsMinSys");
}

// Dates parse strictly and show as a short date of midnight UTC in the zone.
// The test program has no Info.plist: its version is empty, never null, and
// it counts the resources of its own (packed) type.
TEST(KVUtilitiesTest, LocalizedDatesAndTheMainBundlesOwnInformation) {
    EXPECT_EQ(localizedDateString("2024-03-07", "en_US", "UTC"), "3/7/24");
    EXPECT_EQ(localizedDateString("2024-03-07", "de_DE", "UTC"), "07.03.24");
    EXPECT_EQ(localizedDateString("2024-03-07", "en_US", "America/New_York"), "3/6/24");
    EXPECT_TRUE(localizedDateString("7 March 2024", "en_US", "UTC").isNull());
    EXPECT_TRUE(localizedDateString("2024-02-30", "en_US", "UTC").isNull());
    EXPECT_TRUE(KVUtilities::localizedDateString("").isNull());

    EXPECT_TRUE(KVUtilities::versionString() == "" && !KVUtilities::versionString().isNull());
    const qsizetype before = KVUtilities::appType();
    const QString path = KVBundle::mainBundle().resourcePath() + "/counted.kvapp";
    ASSERT_TRUE(QFile(path).open(QIODevice::WriteOnly));
    const qsizetype after = KVUtilities::appType();
    QFile::remove(path);
    EXPECT_EQ(after, before + 1);
}
