// Desktop entries, login items' autostart entries and user defaults in the test's
// private XDG folders.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <limits>

#include "KVLaunchServices.h"
#include "KVLoginItems.h"
#include "KVUserDefaults.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {
QString read(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

class KVLaunchServicesTest : public testing::Test {
protected:
    static QString entryPath(const QString &identifier) {
        return qEnvironmentVariable("XDG_DATA_HOME") + "/applications/" + identifier + ".desktop";
    }
    const QString folder = TestEnvironment::makeTempDir("register");
};
}  // namespace

// The entry passes the desktop's validator and launcher, shows the icon as a PNG and
// starts the executable whatever its path: ", `, $ and \ escaped in quotes, % doubled,
// backslashes escaped again, and through env when "%" is in the path.
TEST_F(KVLaunchServicesTest, RegisteredBundleGetsAValidDesktopEntryWithItsIcon) {
    const QString bundle = TestBundle::make(folder + "/a \"b\" $c `d` %e", "Shown App",
                                            {{"CFBundleIdentifier", "org.velmora.test.shown"},
                                             {"CFBundleName", "Shown App"},
                                             {"CFBundleIconFile", "Shown"}});
    QImage icon(512, 512, QImage::Format_ARGB32);
    icon.fill(Qt::green);
    ASSERT_TRUE(QImageWriter(bundle + "/Contents/Resources/Shown.icns", "icns").write(icon));

    EXPECT_EQ(KVLaunchServices::registerURL(bundle, true), KVLaunchServices::noErr);
    const QString entry = read(entryPath("org.velmora.test.shown"));
    const QString exec =
        "\nExec=/usr/bin/env \"%1/a \\\\\"b\\\\\" \\\\$c \\\\`d\\\\` %%e"
        "/Shown App.app/Contents/MacOS/Shown App\"\n";
    EXPECT_TRUE(entry.contains(exec.arg(folder))) << qPrintable(entry);
    const QString png = qEnvironmentVariable("XDG_DATA_HOME") +
                        "/icons/hicolor/256x256/apps/org.velmora.test.shown.png";
    EXPECT_TRUE(entry.contains("\nIcon=" + png + "\n"));
    EXPECT_EQ(QImage(png).size(), QSize(256, 256));

    const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
    ASSERT_FALSE(validator.isEmpty()) << "scripts/install-deps installs desktop-file-utils";
    // What it objects to appears in the test's output.
    EXPECT_EQ(QProcess::execute(validator, {entryPath("org.velmora.test.shown")}), 0);
    EXPECT_EQ(QProcess::execute("gio", {"launch", entryPath("org.velmora.test.shown")}), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return TestBundle::runningFrom(bundle) > 0; }, 10000));
    TestBundle::stopProcessesAt(bundle);
}

// No bundle, no identifier or one escaping the folder is refused; updates replace.
TEST_F(KVLaunchServicesTest, RefusesWhatIsNoBundleAndKeepsARegistrationUnlessUpdating) {
    TestEnvironment::writeFile(folder + "/file.txt", "x");
    const std::pair<QString, int> refused[] = {
        {folder + "/missing.app", KVLaunchServices::fnfErr},
        {folder + "/file.txt", KVLaunchServices::fnfErr},
        {TestBundle::make(folder, "Anonymous", {}), KVLaunchServices::paramErr},
        {TestBundle::make(folder, "Escaping", {{"CFBundleIdentifier", "../../evil"}}),
         KVLaunchServices::paramErr}};
    for (const auto &[path, status] : refused)
        EXPECT_EQ(KVLaunchServices::registerURL(path, true), status) << qPrintable(path);

    const QString bundle =
        TestBundle::make(folder, "Kept", {{"CFBundleIdentifier", "org.velmora.test.kept"}});
    TestEnvironment::writeFile(entryPath("org.velmora.test.kept"), "earlier");
    EXPECT_EQ(KVLaunchServices::registerURL(bundle, false), KVLaunchServices::noErr);
    EXPECT_EQ(read(entryPath("org.velmora.test.kept")), "earlier");
    EXPECT_EQ(KVLaunchServices::registerURL(bundle, true), KVLaunchServices::noErr);
    EXPECT_NE(read(entryPath("org.velmora.test.kept")), "earlier");
}

// Each entry resolves to its bundle or program, unless hidden, with no existing program
// or its Exec outside [Desktop Entry]. Only *.desktop files count, by file name.
TEST(KVLoginItemsTest, ResolvesEntriesToTheirBundleOrProgram) {
    const QString autostart = qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart";
    const QString folder = TestEnvironment::makeTempDir("loginitems");
    const QString app = TestBundle::make(folder + "/path with space", "P");
    const QString tool = folder + "/kv-login-tool";
    ASSERT_TRUE(QFile::copy(KV_TEST_CHILD, tool));
    QFile::setPermissions(tool, QFile::permissions(KV_TEST_CHILD));
    const QString quoted = "\"" + TestBundle::executableOf(app) + "\" --flag \"an argument\"";
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(folder) + ":" + savedPath);
    const auto write = [&](const QString &name, const QString &body) {
        EXPECT_TRUE(TestEnvironment::writeFile(autostart + "/" + name, body.toUtf8()));
    };
    const QString group = "[Desktop Entry]\n";
    const std::pair<QString, QString> cases[] = {
        {group + "Exec=" + tool + " %U\nHidden=false", tool},
        {group + "Exec=" + quoted, app},
        {group + "Exec=kv-login-tool --start", tool},
        {group + "Exec=" + tool + "\nHidden=true", {}},
        {group + "Hidden = true\nExec=" + tool, {}},
        {group + "Exec=" + folder + "/missing", {}},
        {group + "Exec=kv-no-such-program-anywhere", {}},
        {group + "Name=No Exec", {}},
        {group + "Exec=" + tool + "\n[Desktop Action x]\nExec=" + app + "\nHidden=true", tool},
        {"[Other Group]\nExec=" + tool, {}}};
    for (const auto &[body, resolved] : cases) {
        QDir(autostart).removeRecursively();
        write("entry.desktop", body + "\n");
        EXPECT_EQ(KVLoginItems::resolvedPaths(),
                  resolved.isNull() ? QStringList() : QStringList{resolved})
            << qPrintable(body);
    }
    QDir(autostart).removeRecursively();
    write("b.desktop", group + "Exec=" + tool + "\n");
    write("a.desktop", group + "Exec=" + quoted + "\n");
    write("c.desktop.bak", group + "Exec=" + tool + "\n");
    EXPECT_EQ(KVLoginItems::resolvedPaths(), (QStringList{app, tool}));
    QDir(autostart).removeRecursively();
    qputenv("PATH", savedPath);
}

// "-key value" pairs of the command line override stored values, never taking a dashed
// word as a value. The application domain is named after the program without a bundle
// identifier; each domain is a file of its own in the private config folder.
TEST(KVUserDefaultsTest, ArgumentsOverrideDomainsKeptInTheirOwnFiles) {
    KVUserDefaults defaults("org.example.arguments");
    defaults.setObject(3, "volume");
    KVUserDefaults::setArgumentDomain({"prog", "-volume", "7", "-a", "-b", "YES", "c", "-d"});
    EXPECT_EQ(defaults.integerForKey("volume"), 7);
    EXPECT_TRUE(defaults.boolForKey("b"));
    EXPECT_EQ(KVUserDefaults::argumentDomain(), (QVariantMap{{"volume", "7"}, {"b", "YES"}}));
    KVUserDefaults::setArgumentDomain({});
    KVUserDefaults &standard = KVUserDefaults::standardUserDefaults();
    ASSERT_EQ(standard.domain(), "FoundationTests");
    standard.setObject("kept", "appKey");
    standard.synchronize();
    EXPECT_FALSE(KVUserDefaults("org.example.suite").objectForKey("appKey").isValid());
    const QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    ASSERT_TRUE(config.startsWith(TestEnvironment::root()));
    EXPECT_TRUE(read(config + "/FoundationTests.conf").contains("appKey=kept"));
}

// The first significant character decides a boolean; leading digits give a number, an
// integer saturating rather than wrapping.
TEST(KVUserDefaultsTest, ReadsTextsByTheirLeadingCharacters) {
    for (const char *text : {"YES", "true", " 07", "-1", "+9x"})
        EXPECT_TRUE(KVUserDefaults::boolValue(text)) << text;
    for (const char *text : {"00", "NO", "  ", "maybe"})
        EXPECT_FALSE(KVUserDefaults::boolValue(text)) << text;
    const std::pair<const char *, qint64> integers[] = {
        {"  -12abc", -12},
        {"abc", 0},
        {"99999999999999999999", std::numeric_limits<qint64>::max()},
        {"-99999999999999999999", std::numeric_limits<qint64>::min()}};
    for (const auto &[text, value] : integers)
        EXPECT_EQ(KVUserDefaults::integerValue(text), value) << text;
    for (const auto &[text, value] : {std::pair{"  -2.25xyz", -2.25}, {"1e3", 1000.0}, {"x", 0.0}})
        EXPECT_DOUBLE_EQ(KVUserDefaults::doubleValue(text), value) << text;
}
