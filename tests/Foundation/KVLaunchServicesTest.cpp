// Desktop entries, autostart entries and user defaults in the test's private XDG folders.
#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include "KVLaunchServices.h"
#include "KVLoginItems.h"
#include "KVUserDefaults.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

// The desktop's own validator and launcher must accept an executable path
// with ", `, $, \ and %: quoting that only looks right fails there. No
// identifier, or one escaping the folder, is refused.
TEST(KVLaunchServicesTest, RegisteredBundleGetsADesktopEntryTheDesktopAccepts) {
    const QString folder = TestEnvironment::makeTempDir("register");
    const QString bundle = TestBundle::make(
        folder + "/a \"b\" $c `d` %e", "Shown App",
        {{"CFBundleIdentifier", "org.velmora.test.shown"}, {"CFBundleName", "Shown App"}});
    const QString entry =
        qEnvironmentVariable("XDG_DATA_HOME") + "/applications/org.velmora.test.shown.desktop";
    EXPECT_EQ(KVLaunchServices::registerURL(bundle, true), KVLaunchServices::noErr);
    const QString text = QString::fromUtf8(TestEnvironment::readFile(entry));
    ASSERT_FALSE(text.isEmpty());
    EXPECT_TRUE(
        text.contains(QString("\nExec=/usr/bin/env \"%1/a \\\\\"b\\\\\" \\\\$c \\\\`d\\\\` %%e"
                              "/Shown App.app/Contents/MacOS/Shown App\"\n")
                          .arg(folder)))
        << qPrintable(text);
    const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
    ASSERT_FALSE(validator.isEmpty()) << "scripts/install-deps installs desktop-file-utils";
    EXPECT_EQ(QProcess::execute(validator, {entry}), 0);
    EXPECT_EQ(QProcess::execute("gio", {"launch", entry}), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return TestBundle::runningFrom(bundle) > 0; }, 10000));
    TestBundle::stopProcessesAt(bundle);
    for (const QString &path :
         {TestBundle::make(folder, "Anonymous", {}),
          TestBundle::make(folder, "Escaping", {{"CFBundleIdentifier", "../../evil"}})})
        EXPECT_EQ(KVLaunchServices::registerURL(path, true), KVLaunchServices::paramErr);
}

// Only Exec and Hidden of [Desktop Entry] count.
TEST(KVLoginItemsTest, ResolvesEntriesToTheirBundleOrProgram) {
    const QString autostart = qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart";
    const QString folder = TestEnvironment::makeTempDir("loginitems");
    const QString app = TestBundle::make(folder, "P"), inApp = TestBundle::executableOf(app);
    const QString sh = QStandardPaths::findExecutable("sh"), group = "[Desktop Entry]\n";
    // clang-format off
    const std::pair<QString, QStringList> cases[] = {
        {group + "Exec=sh %U\nHidden=false", {sh}}, {group + "Exec=\"" + inApp + "\" -x", {app}},
        {group + "Hidden = true\nExec=sh", {}}, {group + "Exec=" + folder + "/missing", {}},
        {"[Other Group]\nExec=sh", {}},
        {group + "Exec=sh\n[Desktop Action x]\nExec=" + inApp + "\nHidden=true", {sh}}};
    // clang-format on
    for (const auto &[body, resolved] : cases) {
        QDir(autostart).removeRecursively();
        TestEnvironment::writeFile(autostart + "/entry.desktop", body.toUtf8() + "\n");
        EXPECT_EQ(KVLoginItems::resolvedPaths(), resolved) << qPrintable(body);
    }
    QDir(autostart).removeRecursively();
}

// A dashed word is never a value; the first significant character decides a boolean.
TEST(KVUserDefaultsTest, ArgumentsOverrideStoredValuesAndTextsReadByTheirLeadingCharacters) {
    KVUserDefaults defaults("org.example.arguments");
    defaults.setObject(3, "volume");
    KVUserDefaults::setArgumentDomain({"prog", "-volume", "7", "-a", "-b", "YES", "c", "-d"});
    EXPECT_EQ(defaults.integerForKey("volume"), 7);
    EXPECT_EQ(KVUserDefaults::argumentDomain(), (QVariantMap{{"volume", "7"}, {"b", "YES"}}));
    KVUserDefaults::setArgumentDomain({});
    EXPECT_EQ(defaults.integerForKey("volume"), 3);
    const QStringList truthy{"YES", "true", " 07", "-1", "+9x"};
    for (const QString &text : truthy + QStringList{"00", "NO", "  ", "maybe"})
        EXPECT_EQ(KVUserDefaults::boolValue(text), truthy.contains(text)) << qPrintable(text);
    EXPECT_EQ(KVUserDefaults::integerValue("  -12abc"), -12);
    EXPECT_DOUBLE_EQ(KVUserDefaults::doubleValue("  -2.25xyz"), -2.25);
}
