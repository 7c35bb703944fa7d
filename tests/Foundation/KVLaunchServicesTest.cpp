// Registering real bundles with the desktop: the entry written, its icon,
// and that the desktop's own validator accepts it.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QProcess>
#include <QStandardPaths>

#include "KVLaunchServices.h"
#include "KVPropertyList.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class KVLaunchServicesTest : public testing::Test {
protected:
    void SetUp() override { folder = TestEnvironment::makeTempDir("register"); }
    static QString entryPath(const QString &identifier) {
        return qEnvironmentVariable("XDG_DATA_HOME") + "/applications/" + identifier + ".desktop";
    }
    static QString read(const QString &path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    QString folder;
};

TEST_F(KVLaunchServicesTest, RegisteredBundleGetsAValidDesktopEntryWithItsIcon) {
    const QString bundle = TestBundle::make(folder + "/with \"quotes\" $and %percent", "Shown App",
                                            {{"CFBundleIdentifier", "org.velmora.test.shown"},
                                             {"CFBundleName", "Shown App"},
                                             {"CFBundleIconFile", "Shown"}});
    QImage icon(512, 512, QImage::Format_ARGB32);
    icon.fill(Qt::green);
    ASSERT_TRUE(QImageWriter(bundle + "/Contents/Resources/Shown.icns", "icns").write(icon));

    EXPECT_EQ(KVLaunchServices::registerURL(bundle, true), KVLaunchServices::noErr);
    const QString entry = read(entryPath("org.velmora.test.shown"));
    EXPECT_TRUE(entry.startsWith("[Desktop Entry]\nType=Application\n")) << qPrintable(entry);
    EXPECT_TRUE(entry.contains("\nName=Shown App\n"));
    const QString png = qEnvironmentVariable("XDG_DATA_HOME") +
                        "/icons/hicolor/256x256/apps/org.velmora.test.shown.png";
    EXPECT_TRUE(entry.contains("\nIcon=" + png + "\n"));
    EXPECT_EQ(QImage(png).size(), QSize(256, 256));

    const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
    ASSERT_FALSE(validator.isEmpty()) << "scripts/install-deps installs desktop-file-utils";
    QProcess validate;
    validate.setProcessChannelMode(QProcess::MergedChannels);
    validate.start(validator, {entryPath("org.velmora.test.shown")});
    ASSERT_TRUE(validate.waitForFinished(10000));
    EXPECT_EQ(validate.exitCode(), 0) << validate.readAll().toStdString();
}

TEST_F(KVLaunchServicesTest, ExecLineStartsTheBundleExecutableWhateverItsPathHolds) {
    const QString bundle = TestBundle::make(folder + "/a \"b\" $c `d` %e", "P",
                                            {{"CFBundleIdentifier", "org.velmora.test.p"}});
    const QString entry = KVLaunchServices::desktopEntryFor(bundle, QString());
    // Inside the quotes ", `, $ and \ are escaped; % doubles; then the whole
    // value escapes its backslashes once more.
    const QString expected =
        QString("Exec=\"%1/a \\\\\"b\\\\\" \\\\$c \\\\`d\\\\` %%e/P.app/Contents/MacOS/P\"")
            .arg(folder);
    EXPECT_TRUE(entry.contains(expected + "\n")) << qPrintable(entry);
    EXPECT_FALSE(entry.contains("Icon="));
}

TEST_F(KVLaunchServicesTest, WhatIsNoApplicationBundleIsRefused) {
    EXPECT_EQ(KVLaunchServices::registerURL(folder + "/missing.app", true),
              KVLaunchServices::fnfErr);
    const QString plain = folder + "/file.txt";
    TestEnvironment::writeFile(plain, "x");
    EXPECT_EQ(KVLaunchServices::registerURL(plain, true), KVLaunchServices::fnfErr);
    const QString anonymous = TestBundle::make(folder, "Anonymous", {});
    EXPECT_EQ(KVLaunchServices::registerURL(anonymous, true), KVLaunchServices::paramErr);
    const QString escaping =
        TestBundle::make(folder, "Escaping", {{"CFBundleIdentifier", "../../evil"}});
    EXPECT_EQ(KVLaunchServices::registerURL(escaping, true), KVLaunchServices::paramErr);
}

TEST_F(KVLaunchServicesTest, WithoutUpdateAnExistingRegistrationIsKept) {
    const QString bundle =
        TestBundle::make(folder, "Kept", {{"CFBundleIdentifier", "org.velmora.test.kept"}});
    TestEnvironment::writeFile(entryPath("org.velmora.test.kept"), "earlier");
    EXPECT_EQ(KVLaunchServices::registerURL(bundle, false), KVLaunchServices::noErr);
    EXPECT_EQ(read(entryPath("org.velmora.test.kept")), "earlier");
    EXPECT_EQ(KVLaunchServices::registerURL(bundle, true), KVLaunchServices::noErr);
    EXPECT_NE(read(entryPath("org.velmora.test.kept")), "earlier");
}

}  // namespace
