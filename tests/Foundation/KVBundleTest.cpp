#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimeZone>

#include "KVBundle.h"
#include "KVFileManager.h"
#include "KVPropertyList.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using KVPropertyList::Format;

class KVBundleTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("bundles");
    const QVariantMap info{{"CFBundleIdentifier", "org.example.product"}, {"CFBundleName", "P"}};
};

TEST_F(KVBundleTest, ReadsTheInfoDictionaryInXmlAndInBinaryForm) {
    for (Format format : {Format::Xml, Format::Binary}) {
        const bool binary = format == Format::Binary;
        const QString path = TestBundle::make(folder, binary ? "Bin" : "Xml", info, false, format);
        QFile plist(path + "/Contents/Info.plist");
        ASSERT_TRUE(plist.open(QIODevice::ReadOnly));
        EXPECT_TRUE(plist.read(8).startsWith(binary ? "bplist00" : "<?xml"));
        EXPECT_EQ(KVBundle::bundleWithPath(path)->bundleIdentifier(), "org.example.product");
    }
}

TEST_F(KVBundleTest, GivesAnEmptyDictionaryForAMissingOrMalformedInfoPlist) {
    const QByteArray xml = KVPropertyList::toData(info, Format::Xml);
    const QByteArray binary = KVPropertyList::toData(info, Format::Binary);
    const std::pair<const char *, QByteArray> cases[] = {
        {"Garbage", QByteArrayLiteral("\x00\xff\x13garbage\x80\x81")},
        {"BinaryGarbage", QByteArrayLiteral("bplist00\xff\xff\xff\xff\x01\x02\x03")},
        {"TruncatedXml", xml.left(xml.size() / 2)},
        {"TruncatedBinary", binary.left(binary.size() - 10)},
        {"ArrayRoot", KVPropertyList::toData(QVariantList{1, 2}, Format::Xml)},
        {"Empty", QByteArray()}};
    for (const auto &[name, bytes] : cases)
        ASSERT_TRUE(
            TestEnvironment::writeFile(folder + "/" + name + ".app/Contents/Info.plist", bytes));
    QDir().mkpath(folder + "/Directory.app/Contents/Info.plist");
    QDir().mkpath(folder + "/Missing.app/Contents");
    for (const QString &name : QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const auto bundle = KVBundle::bundleWithPath(folder + "/" + name);
        ASSERT_TRUE(bundle);
        EXPECT_TRUE(bundle->infoDictionary().isEmpty()) << name.toStdString();
        EXPECT_TRUE(bundle->executablePath().isNull()) << name.toStdString();
    }
}

TEST_F(KVBundleTest, FindsNoBundleAtAFileOrAMissingPath) {
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/file.app", "x"));
    EXPECT_FALSE(KVBundle::bundleWithPath(folder + "/file.app"));
    EXPECT_FALSE(KVBundle::bundleWithPath(folder + "/missing.app"));
    EXPECT_FALSE(KVBundle::bundleWithPath(""));
    const QString path = TestBundle::make(folder, "P", info, false);
    EXPECT_EQ(KVBundle::bundleWithPath(path + "//")->bundlePath(), path);
}

TEST_F(KVBundleTest, FindsItsExecutableAndItsResourcesByNameAndType) {
    const QString path = TestBundle::make(folder, "P", info);
    const QString resources = path + "/Contents/Resources";
    for (const char *name : {"a.png", "README", "sound.wav", "icon.png"})
        ASSERT_TRUE(TestEnvironment::writeFile(resources + "/" + name, "x"));
    const KVBundle bundle = *KVBundle::bundleWithPath(path);
    EXPECT_EQ(bundle.executablePath(), path + "/Contents/MacOS/P");
    EXPECT_TRUE(QFileInfo(bundle.executablePath()).isExecutable());
    EXPECT_EQ(bundle.pathForResource("icon", "png"), resources + "/icon.png");
    EXPECT_EQ(bundle.pathForResource("README", ""), resources + "/README");
    const char *absent[][2] = {{"icon", ""}, {"missing", "png"}, {"", "png"}};
    for (const auto &[name, type] : absent)
        EXPECT_TRUE(bundle.pathForResource(name, type).isNull()) << name << "." << type;
    EXPECT_EQ(bundle.pathsForResourcesOfType("png"),
              (QStringList{resources + "/a.png", resources + "/icon.png"}));
}

TEST_F(KVBundleTest, FindsTheNearestEnclosingApplication) {
    const QString cases[][2] = {
        {"/a/P.app/Contents/Resources/S.app/Contents/MacOS/x", "/a/P.app/Contents/Resources/S.app"},
        {"/a/P.app/", "/a/P.app"},
        {"/My Apps/Ü ber.app//Contents", "/My Apps/Ü ber.app"},
        {"/a/P.apple/x", QString()},
        {"/usr/bin/env", QString()},
        {"/", QString()},
        {"", QString()}};
    for (const auto &[path, app] : cases) {
        const QString found = KVBundle::enclosingApplicationBundle(path);
        EXPECT_EQ(found, app) << path.toStdString();
        EXPECT_EQ(found.isNull(), app.isNull()) << path.toStdString();
    }
}

TEST_F(KVBundleTest, TakesTheTestProgramsFolderAsMainBundleOutsideAnyApplication) {
    EXPECT_EQ(KVBundle::executableFilePath(), QCoreApplication::applicationFilePath());
    EXPECT_EQ(KVBundle::mainBundle().bundlePath(), QCoreApplication::applicationDirPath());
    EXPECT_EQ(KVBundle::mainBundle().resourcePath(), QCoreApplication::applicationDirPath());
}

TEST_F(KVBundleTest, RoundTripsNestedPropertyListsInBothForms) {
    const QVariantMap value{
        {"string", "Grüße <&>"},
        {"int", qlonglong(42)},
        {"negative", qlonglong(-5)},
        {"large", qlonglong(1) << 40},
        {"yes", true},
        {"no", false},
        {"real", 2.5},
        {"date", QDateTime(QDate(2026, 11, 21), QTime(9, 15, 2), QTimeZone::utc())},
        {"old", QDateTime(QDate(1999, 1, 2), QTime(3, 4, 5), QTimeZone::utc())},
        {"data", QByteArrayLiteral("\x00\x01\xfe\xff")},
        {"list", QVariantList{"a", qlonglong(1), QVariantMap{{"k", QVariantList{}}}}},
        {"dict", QVariantMap{{"inner", QVariantMap{}}}}};
    for (Format format : {Format::Xml, Format::Binary}) {
        const QString path = folder + "/value.plist";
        ASSERT_TRUE(KVPropertyList::writeFile(value, path, format));
        const QVariantMap read = KVPropertyList::fromFile(path).toMap();
        EXPECT_EQ(read.keys(), value.keys());
        for (auto it = value.cbegin(); it != value.cend(); ++it)
            EXPECT_EQ(read.value(it.key()), it.value()) << it.key().toStdString() << int(format);
    }
}

TEST_F(KVBundleTest, AnswersFileManagerQuestionsAboutBundlesAndLinks) {
    const QString app = TestBundle::make(folder, "Product", info, false);
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/file.app", "x"));
    EXPECT_EQ(KVFileManager::displayNameAtPath(app), "Product");
    EXPECT_EQ(KVFileManager::displayNameAtPath(folder + "/file.app"), "file.app");
    // A dangling link is an item that can be replaced or trashed.
    ASSERT_TRUE(QFile::link(folder + "/nowhere", folder + "/dangling"));
    bool isDirectory = true;
    EXPECT_TRUE(KVFileManager::fileExistsAtPath(folder + "/dangling", &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_FALSE(KVFileManager::fileExistsAtPath(folder + "/nowhere"));
}
