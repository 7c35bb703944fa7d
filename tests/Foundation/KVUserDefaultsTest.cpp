#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <limits>

#include "KVUserDefaults.h"
#include "TestEnvironment.h"

class KVUserDefaultsTest : public testing::Test {
protected:
    void TearDown() override { KVUserDefaults::setArgumentDomain({}); }
};

TEST_F(KVUserDefaultsTest, ReadsKeyValuePairsOfTheCommandLineButNoDashedWordAsAValue) {
    KVUserDefaults::setArgumentDomain({"prog", "-nosound", "YES", "-x"});
    const KVUserDefaults defaults("org.example.arguments");
    EXPECT_TRUE(defaults.boolForKey("nosound"));
    EXPECT_FALSE(defaults.objectForKey("x").isValid());
    KVUserDefaults::setArgumentDomain({"prog", "-a", "-b", "7", "c", "-d"});
    EXPECT_EQ(KVUserDefaults::argumentDomain(), (QVariantMap{{"b", "7"}}));
}

TEST_F(KVUserDefaultsTest, PrefersTheArgumentDomainToTheStoredValue) {
    KVUserDefaults defaults("org.example.precedence");
    defaults.setObject(3, "volume");
    EXPECT_EQ(defaults.integerForKey("volume"), 3);
    KVUserDefaults::setArgumentDomain({"prog", "-volume", "7"});
    EXPECT_EQ(defaults.integerForKey("volume"), 7);
}

TEST_F(KVUserDefaultsTest, StoresTheApplicationDomainInThePrivateConfigFolderOnly) {
    const QString realFile =
        QFile::decodeName(getpwuid(getuid())->pw_dir) + "/.config/FoundationTests.conf";
    const bool realFileExisted = QFileInfo::exists(realFile);
    KVUserDefaults &standard = KVUserDefaults::standardUserDefaults();
    // The test program has no bundle identifier, so its name is the domain.
    ASSERT_EQ(standard.domain(), "FoundationTests");
    standard.setObject("kept", "appKey");
    standard.synchronize();
    EXPECT_EQ(KVUserDefaults("FoundationTests").stringForKey("appKey"), "kept");

    const QString file = qEnvironmentVariable("XDG_CONFIG_HOME") + "/FoundationTests.conf";
    ASSERT_TRUE(file.startsWith(TestEnvironment::root()));
    QFile stored(file);
    ASSERT_TRUE(stored.open(QIODevice::ReadOnly));
    EXPECT_TRUE(stored.readAll().contains("appKey=kept"));
    EXPECT_EQ(QFileInfo::exists(realFile), realFileExisted);
}

TEST_F(KVUserDefaultsTest, KeepsANamedSuiteApartFromTheApplicationDomain) {
    const QString key = "com.apple.sound.beep.volume";
    KVUserDefaults &standard = KVUserDefaults::standardUserDefaults();
    KVUserDefaults sound("com.apple.systemsound");
    standard.setObject("app", "shared");
    sound.setObject(0.5, key);
    EXPECT_FALSE(sound.objectForKey("shared").isValid());
    EXPECT_FALSE(standard.objectForKey(key).isValid());
    EXPECT_DOUBLE_EQ(sound.doubleForKey(key), 0.5);
    EXPECT_TRUE(
        QFileInfo::exists(qEnvironmentVariable("XDG_CONFIG_HOME") + "/com.apple.systemsound.conf"));
}

TEST_F(KVUserDefaultsTest, ReadsTextsAsBooleansLikeThePlatform) {
    for (const char *text : {"YES", "yes", "true", "T", "1", " 07", "-1", "+9x"})
        EXPECT_TRUE(KVUserDefaults::boolValue(text)) << text;
    for (const char *text : {"0", "00", "NO", "false", "", "  ", "maybe"})
        EXPECT_FALSE(KVUserDefaults::boolValue(text)) << text;
}

TEST_F(KVUserDefaultsTest, ReadsLeadingDigitsAsIntegersAndSaturatesOnOverflow) {
    const std::pair<const char *, qint64> cases[] = {
        {"101300", 101300}, {"  -12abc", -12}, {"+5", 5}, {"abc", 0}, {"", 0}};
    for (const auto &[text, value] : cases)
        EXPECT_EQ(KVUserDefaults::integerValue(text), value) << text;
    for (const char *text : {"9223372036854775807", "99999999999999999999"})
        EXPECT_EQ(KVUserDefaults::integerValue(text), std::numeric_limits<qint64>::max()) << text;
    for (const char *text : {"-9223372036854775808", "-99999999999999999999"})
        EXPECT_EQ(KVUserDefaults::integerValue(text), std::numeric_limits<qint64>::min()) << text;
}

TEST_F(KVUserDefaultsTest, ReadsLeadingNumbersAsDoubles) {
    const std::pair<const char *, double> cases[] = {
        {"0.35", 0.35}, {"  -2.25xyz", -2.25}, {"1e3", 1000.0}, {"abc", 0.0}, {"", 0.0}};
    for (const auto &[text, value] : cases)
        EXPECT_DOUBLE_EQ(KVUserDefaults::doubleValue(text), value) << text;
}
