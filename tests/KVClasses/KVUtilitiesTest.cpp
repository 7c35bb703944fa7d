#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <QFile>
#include <QMap>

#include "KVBundle.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVUtilities_p.h"

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

TEST(KVUtilitiesVersionComparison, OrdersStagesBeforeTheRelease) {
    EXPECT_EQ(KVUtilities::compareVersion("2.5", "2.5b3"), NSOrderedDescending);
    EXPECT_EQ(KVUtilities::compareVersion("2.5a9", "2.5b1"), NSOrderedAscending);
    EXPECT_EQ(KVUtilities::compareVersion("2.5p1", "2.5d1"), NSOrderedAscending);
    EXPECT_EQ(KVUtilities::compareVersion("1.0", "1.0f1"), NSOrderedDescending);
}

TEST(KVUtilitiesVersionComparison, ComparesNumbersByValue) {
    EXPECT_EQ(KVUtilities::compareVersion("1.10", "1.9"), NSOrderedDescending);
    EXPECT_EQ(KVUtilities::compareVersion("2.5b3", "2.5b10"), NSOrderedAscending);
    EXPECT_EQ(KVUtilities::compareVersion("2.5", "2.5.0"), NSOrderedAscending);
    EXPECT_EQ(KVUtilities::compareVersion("2.5.1", "2.5"), NSOrderedDescending);
    EXPECT_EQ(KVUtilities::compareVersion("2.1.3", "2.1.3"), NSOrderedSame);
}

TEST(KVUtilitiesVersionComparison, RanksUnknownAndUpperCaseLettersLikeP) {
    EXPECT_EQ(KVUtilities::compareVersion("1.0X1", "1.0p1"), NSOrderedSame);
    EXPECT_EQ(KVUtilities::compareVersion("1.0B1", "1.0d1"), NSOrderedAscending);
}

TEST(KVUtilitiesNumericCompare, ComparesDigitRunsByValueAndOtherUnitsByCode) {
    EXPECT_EQ(numericCompare(u"file9", u"file10"), NSOrderedAscending);
    EXPECT_EQ(numericCompare(u"a007", u"a7"), NSOrderedSame);
    EXPECT_EQ(numericCompare(u"99999999999999999999", u"100000000000000000000"),
              NSOrderedAscending);
    EXPECT_EQ(numericCompare(u"a", u"B", Qt::CaseInsensitive), NSOrderedAscending);
}

TEST(KVUtilitiesPlainVersion, KeepsTheLeadingDigitsAndDots) {
    EXPECT_EQ(KVUtilities::plainVersionOf("2.1b3"), "2.1");
    EXPECT_EQ(KVUtilities::plainVersionOf("4.0.2 (512)"), "4.0.2");
    EXPECT_EQ(KVUtilities::plainVersionOf("v2"), "");
    EXPECT_EQ(KVUtilities::plainVersionOf(""), "");
    const QString version = "10.4.11";  // wholly plain: the same string back
    EXPECT_EQ(KVUtilities::plainVersionOf(version).constData(), version.constData());
}

TEST(KVUtilitiesReleasePredicates, SwitchAtTheirThresholdsWithTheirOwnRounding) {
    using KV = KVUtilities;
    // The three oldest round down, one of them strictly above.
    EXPECT_TRUE(KV::pantherOrOlder(743.9));
    EXPECT_FALSE(KV::pantherOrOlder(744.0));
    EXPECT_FALSE(KV::leopardOrNewer(824.9));
    EXPECT_TRUE(KV::leopardOrNewer(825.0));
    EXPECT_FALSE(KV::snowleopardOrNewer(1037.9));
    EXPECT_TRUE(KV::snowleopardOrNewer(1038.0));
    EXPECT_FALSE(KV::highSierraOrNewer(1537.1));
    EXPECT_TRUE(KV::highSierraOrNewer(1537.2));

    const struct {
        bool (*predicate)(double);
        double threshold;
    } atLeast[] = {{KV::lionOrNewer, 1138.0},      {KV::mountainLionOrNewer, 1187.0},
                   {KV::mavericksOrNewer, 1265.0}, {KV::yosemiteOrNewer, 1343.0},
                   {KV::elCapitanOrNewer, 1404.0}, {KV::sierraOrNewer, 1490.0},
                   {KV::mojaveOrNewer, 1639.0},    {KV::catalinaOrNewer, 1861.0},
                   {KV::bigSurOrNewer, 2000.0},    {KV::montereyOrNewer, 2080.0},
                   {KV::venturaOrNewer, 2299.0}};
    for (const auto &row : atLeast) {
        SCOPED_TRACE(row.threshold);
        EXPECT_FALSE(row.predicate(row.threshold - 0.1));
        EXPECT_TRUE(row.predicate(row.threshold));
    }
}

TEST(KVUtilitiesReleasePredicates, ThisSystemCountsAsTheNewestRelease) {
    EXPECT_EQ(KVUtilities::kitVersionNumber(), 2299.0);
    EXPECT_TRUE(KVUtilities::venturaOrNewer());
    EXPECT_FALSE(KVUtilities::pantherOrOlder());
}

TEST(KVUtilitiesSystemVersion, AsksForMinorAndBugFixAfterTheMajor) {
    testing::internal::CaptureStderr();
    const uint64_t packed =
        threePartVersion(answering({{kMajorSelector, 13}, {kBCDSelector, 0x1049}}));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(packed, 13u);
    EXPECT_NE(log.find("cannot get minor version number"), std::string::npos);
    EXPECT_NE(log.find("cannot get bugfix version number"), std::string::npos);
    EXPECT_EQ(threePartVersion(
                  answering({{kMajorSelector, 13}, {kMinorSelector, 2}, {kBugFixSelector, 1}})),
              13u | 2ull << 16 | 1ull << 32);
}

TEST(KVUtilitiesSystemVersion, DecodesTheBCDWordWhenTheMajorIsUnknown) {
    const uint64_t packed = threePartVersion(answering({{kBCDSelector, 0x1049}}));
    EXPECT_EQ(decimalVersion(packed), 100409);
    EXPECT_EQ(systemVersionString(packed), "10.4.9");
    EXPECT_EQ(threePartVersion(answering({})), 0u);
}

TEST(KVUtilitiesSystemVersion, PrintsTwoPartsWhenTheBugFixIsZero) {
    EXPECT_EQ(systemVersionString(packVersion(13, 0, 0)), "13.0");
    EXPECT_EQ(systemVersionString(packVersion(13, 2, 1)), "13.2.1");
}

TEST(KVUtilitiesSystemVersion, RemembersOnlyANonZeroDecimalVersion) {
    std::atomic<int> cache{0};
    EXPECT_EQ(cachedDecimalVersion(cache, answering({})), 0);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1049}})), 100409);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1130}})), 100409);
}

TEST(KVUtilitiesSystemVersion, ReadsTheKernelRelease) {
    const auto read = [](const char *release, OSType selector) {
        uint32_t value = 12345;
        return kernelReleaseLookup(release, selector, value) ? int64_t(value) : -1;
    };
    EXPECT_EQ(read("6.1.0-28-amd64", kMinorSelector), 1);
    EXPECT_EQ(read("6.1.0-28-amd64", kBCDSelector), 0x0610);
    EXPECT_EQ(read("5.15.153.1-generic", kBCDSelector), 0x0599);  // one BCD digit each
    EXPECT_EQ(read("6.1", kBugFixSelector), -1);
    EXPECT_EQ(read("rc.1", kMajorSelector), -1);
}

TEST(KVUtilitiesSystemVersion, MatchesTheRunningKernel) {
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    const uint64_t packed = KVUtilities::threePartVersion();
    EXPECT_EQ(majorOf(packed), uint32_t(atoi(names.release)));
    EXPECT_EQ(KVUtilities::decimalSystemVersion(), decimalVersion(packed));
    EXPECT_NE(KVUtilities::hexSystemVersion(), 0u);
}

class KVUtilitiesSafeHTTPS : public testing::Test {
protected:
    void SetUp() override { defaults().removeObjectForKey("httpsMinSys"); }
    void TearDown() override { defaults().removeObjectForKey("httpsMinSys"); }
    static KVUserDefaults &defaults() { return KVUserDefaults::standardUserDefaults(); }
    const QString url = "https://example.org/?b=https:", plain = "http://example.org/?b=https:";
};

TEST_F(KVUtilitiesSafeHTTPS, DowngradesBelowTheDefaultThreshold) {
    EXPECT_EQ(safeHTTPS(url, 101299), plain);
    EXPECT_EQ(safeHTTPS(url, 101300), url);
    EXPECT_EQ(safeHTTPS("ftp://example.org", 90000), "ftp://example.org");
}

TEST_F(KVUtilitiesSafeHTTPS, HonoursAConfiguredThresholdOnlyWithinTen) {
    defaults().setObject(101000, "httpsMinSys");
    EXPECT_EQ(safeHTTPS(url, 101200), url);
    defaults().setObject(109999, "httpsMinSys");
    EXPECT_EQ(safeHTTPS(url, 109998), plain);
    defaults().setObject(110000, "httpsMinSys");
    EXPECT_EQ(safeHTTPS(url, 101300), url);
    defaults().setObject(99999, "httpsMinSys");
    EXPECT_EQ(safeHTTPS(url, 101299), plain);
}

TEST_F(KVUtilitiesSafeHTTPS, KeepsHttpsOnThisPlatformUnlessConfiguredHigher) {
    EXPECT_EQ(KVUtilities::safeHTTPS(url), url);
    // The kernel's decimal version (6.1.0 is 60100) is below every accepted value.
    defaults().setObject(109999, "httpsMinSys");
    EXPECT_EQ(KVUtilities::safeHTTPS(url), plain);
}

TEST(KVUtilitiesLocalizedDate, FormatsMidnightUTCAsAShortDateInTheLocale) {
    EXPECT_EQ(localizedDateString("2024-03-07", "en_US", "UTC"), "3/7/24");
    EXPECT_EQ(localizedDateString("2024-03-07", "de_DE", "UTC"), "07.03.24");
    EXPECT_EQ(localizedDateString("2024-03-07", "en_US", "America/New_York"), "3/6/24");
}

TEST(KVUtilitiesLocalizedDate, GivesNullForWhatDoesNotParse) {
    EXPECT_TRUE(localizedDateString("7 March 2024", "en_US", "UTC").isNull());
    EXPECT_TRUE(localizedDateString("2024-02-30", "en_US", "UTC").isNull());
    EXPECT_TRUE(KVUtilities::localizedDateString("").isNull());
    EXPECT_FALSE(KVUtilities::localizedDateString("2024-03-07").isEmpty());
}

TEST(KVUtilitiesMainBundleInfo, GivesEmptyStringsWithoutAnInfoDictionary) {
    EXPECT_FALSE(KVUtilities::versionString().isNull());
    EXPECT_EQ(KVUtilities::versionString(), "");
    EXPECT_EQ(KVUtilities::applicationName(), "");
}

TEST(KVUtilitiesMainBundleInfo, CountsTheBundlesOwnResourceType) {
    const qsizetype before = KVUtilities::appType();
    const QString path = KVBundle::mainBundle().resourcePath() + "/counted.kvapp";
    ASSERT_TRUE(QFile(path).open(QIODevice::WriteOnly));
    const qsizetype after = KVUtilities::appType();
    QFile::remove(path);
    EXPECT_EQ(after, before + 1);
}
