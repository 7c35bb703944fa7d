#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "KVLoginItems.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

// Real autostart entries in the test's private $XDG_CONFIG_HOME/autostart,
// pointing at real programs and bundles made by the test.
class KVLoginItemsTest : public testing::Test {
protected:
    void SetUp() override { QDir(autostart).removeRecursively(); }
    void TearDown() override { QDir(autostart).removeRecursively(); }

    void addEntry(const QString &name, const QString &body) {
        ASSERT_TRUE(TestEnvironment::writeFile(autostart + "/" + name, body.toUtf8()));
    }
    // A real program outside any bundle.
    QString addProgram(const QString &name) {
        const QString path = folder + "/" + name;
        QFile::copy(KV_TEST_CHILD, path);
        QFile::setPermissions(path, QFile::permissions(KV_TEST_CHILD));
        return path;
    }

    const QString autostart = qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart";
    const QString folder = TestEnvironment::makeTempDir("loginitems");
};

TEST_F(KVLoginItemsTest, ListsEntriesInFileNameOrderResolvedToTheirBundleOrProgram) {
    const QString app = TestBundle::make(folder, "P");
    const QString tool = addProgram("tool");
    addEntry("b.desktop", "[Desktop Entry]\nType=Application\nExec=" + tool + "\n");
    addEntry("a.desktop", "[Desktop Entry]\nExec=" + TestBundle::executableOf(app) + " %U\n");
    addEntry("c.desktop.bak", "[Desktop Entry]\nExec=" + tool + "\n");
    EXPECT_EQ(KVLoginItems::resolvedPaths(), (QStringList{app, tool}));
}

TEST_F(KVLoginItemsTest, SkipsHiddenEntries) {
    const QString tool = addProgram("tool");
    addEntry("1.desktop", "[Desktop Entry]\nExec=" + tool + "\nHidden=true\n");
    addEntry("2.desktop", "[Desktop Entry]\nHidden = true\nExec=" + tool + "\n");
    addEntry("3.desktop", "[Desktop Entry]\nExec=" + tool + "\nHidden=false\n");
    EXPECT_EQ(KVLoginItems::resolvedPaths(), QStringList{tool});
}

TEST_F(KVLoginItemsTest, HonoursQuotesAndArgumentsInTheExecLine) {
    const QString app = TestBundle::make(folder + "/path with space", "P");
    const QString exec = "\"" + TestBundle::executableOf(app) + "\" --flag \"an argument\"";
    addEntry("p.desktop", "[Desktop Entry]\nExec=" + exec + "\n");
    EXPECT_EQ(KVLoginItems::resolvedPaths(), QStringList{app});
    EXPECT_EQ(KVLoginItems::programOfExecLine("  " + exec), TestBundle::executableOf(app));
}

TEST_F(KVLoginItemsTest, FindsABareProgramNameThroughPath) {
    const QString tool = addProgram("kv-login-tool");
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(folder) + ":" + savedPath);
    addEntry("t.desktop", "[Desktop Entry]\nExec=kv-login-tool --start\n");
    const QStringList paths = KVLoginItems::resolvedPaths();
    qputenv("PATH", savedPath);
    EXPECT_EQ(paths, QStringList{tool});
}

TEST_F(KVLoginItemsTest, LeavesOutEntriesWithoutAnExistingProgram) {
    addEntry("1.desktop", "[Desktop Entry]\nExec=" + folder + "/missing\n");
    addEntry("2.desktop", "[Desktop Entry]\nExec=kv-no-such-program-anywhere\n");
    addEntry("3.desktop", "[Desktop Entry]\nName=No Exec\n");
    addEntry("4.desktop", "[Desktop Entry]\nExec=\n");
    EXPECT_TRUE(KVLoginItems::resolvedPaths().isEmpty());
}

TEST_F(KVLoginItemsTest, IgnoresKeysOutsideTheDesktopEntryGroup) {
    const QString tool = addProgram("tool");
    const QString other = addProgram("other");
    addEntry("a.desktop", "[Desktop Entry]\nExec=" + tool + "\n[Desktop Action x]\nExec=" + other +
                              "\nHidden=true\n");
    addEntry("b.desktop", "[Other Group]\nExec=" + other + "\n");
    EXPECT_EQ(KVLoginItems::resolvedPaths(), QStringList{tool});
}
