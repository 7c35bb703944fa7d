// Paths' edge cases, and real bundles and property lists on disk.
#include <gtest/gtest.h>
#include <pwd.h>

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QTimeZone>

#include "KVBundle.h"
#include "KVPath.h"
#include "KVPropertyList.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using KVPropertyList::Format;

// "/", "", trailing and repeated slashes and leading dots, as the platform has them.
TEST(KVPathTest, SplitsAndJoinsComponentsLikeThePlatform) {
    // path, lastPathComponent, stringByDeletingLastPathComponent, pathExtension,
    // stringByDeletingPathExtension
    const QString cases[][5] = {
        {"/tmp/", "tmp", "/", "", "/tmp"},
        {"/", "/", "/", "", "/"},
        {"", "", "", "", ""},
        {"scratch///", "scratch", "", "", "scratch"},
        {".scratch.tiff", ".scratch.tiff", "", "tiff", ".scratch"},
        {"/tmp/scratch..tiff", "scratch..tiff", "/tmp", "tiff", "/tmp/scratch."},
        {"/a/.tiff", ".tiff", "/a", "", "/a/.tiff"},
        {"/a.b/c", "c", "/a.b", "", "/a.b/c"},
        {"/a\nb/B.ü ber/", "B.ü ber", "/a\nb", "ü ber", "/a\nb/B"}};
    for (const auto &c : cases) {
        EXPECT_EQ(KVPath::lastPathComponent(c[0]), c[1]) << qPrintable(c[0]);
        EXPECT_EQ(KVPath::stringByDeletingLastPathComponent(c[0]), c[2]) << qPrintable(c[0]);
        EXPECT_EQ(KVPath::pathExtension(c[0]), c[3]) << qPrintable(c[0]);
        EXPECT_EQ(KVPath::stringByDeletingPathExtension(c[0]), c[4]) << qPrintable(c[0]);
    }
    const QString joined[][3] = {
        {"/", "x", "/x"}, {"", "x", "x"}, {"/tmp/", "", "/tmp"}, {"/tmp", "/a//b/", "/tmp/a/b"}};
    for (const auto &c : joined)
        EXPECT_EQ(KVPath::stringByAppendingPathComponent(c[0], c[1]), c[2]) << qPrintable(c[0]);
    EXPECT_EQ(KVPath::stringByAppendingPathExtension("/tmp/x/", "tiff"), "/tmp/x.tiff");
}

// "~" expands to $HOME or a named user's home; only home and what lies in it abbreviate
// back, never a sibling sharing its prefix, and nothing when home is "/".
TEST(KVPathTest, ExpandsAndAbbreviatesTheHomeFolder) {
    const QString home = QFile::decodeName(qgetenv("HOME"));
    const passwd *root = getpwnam("root");
    ASSERT_TRUE(root);
    const QString expanded[][2] = {{"~/", home},
                                   {"~/Grüße", home + "/Grüße"},
                                   {"~root/x", QFile::decodeName(root->pw_dir) + "/x"},
                                   {"~nosuchuser/x", "~nosuchuser/x"},
                                   {"/a/~", "/a/~"}};
    for (const auto &c : expanded)
        EXPECT_EQ(KVPath::stringByExpandingTildeInPath(c[0]), c[1]) << qPrintable(c[0]);
    const QString abbreviated[][2] = {
        {home + "/", "~"}, {home + "/x", "~/x"}, {home + "x", home + "x"}, {"/tmp/x", "/tmp/x"}};
    for (const auto &c : abbreviated)
        EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath(c[0]), c[1]) << qPrintable(c[0]);
    qputenv("HOME", "/");
    EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath("/tmp/x"), "/tmp/x");
    qputenv("HOME", QFile::encodeName(home));
}

class KVBundleTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("bundles");
    const QVariantMap info{{"CFBundleIdentifier", "org.example.product"}, {"CFBundleName", "P"}};
};

// Both plist forms are read; anything malformed or missing gives an empty dictionary.
TEST_F(KVBundleTest, ReadsBothPlistFormsAndNothingFromAMalformedOne) {
    const QByteArray xml = KVPropertyList::toData(info, Format::Xml);
    const QByteArray binary = KVPropertyList::toData(info, Format::Binary);
    ASSERT_TRUE(xml.startsWith("<?xml") && binary.startsWith("bplist00"));
    const std::pair<const char *, QByteArray> cases[] = {
        {"Xml", xml},
        {"Binary", binary},
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
        const bool wellFormed = name == "Xml.app" || name == "Binary.app";
        EXPECT_EQ(bundle->infoDictionary().keys(), wellFormed ? info.keys() : QStringList())
            << qPrintable(name);
    }
}

// Only an existing folder is a bundle, kept without redundant slashes;
// resources are found by name and type, and what is missing is null.
TEST_F(KVBundleTest, FindsItsExecutableAndResources) {
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/file.app", "x"));
    EXPECT_FALSE(KVBundle::bundleWithPath(folder + "/file.app"));
    EXPECT_FALSE(KVBundle::bundleWithPath(folder + "/missing.app"));
    const QString path = TestBundle::make(folder, "P", info);
    const QString resources = path + "/Contents/Resources";
    for (const char *name : {"a.png", "README", "icon.png"})
        ASSERT_TRUE(TestEnvironment::writeFile(resources + "/" + name, "x"));
    const KVBundle bundle = *KVBundle::bundleWithPath(path + "//");
    EXPECT_EQ(bundle.bundlePath(), path);
    EXPECT_TRUE(QFileInfo(bundle.executablePath()).isExecutable());
    EXPECT_EQ(bundle.pathForResource("README", ""), resources + "/README");
    EXPECT_TRUE(bundle.pathForResource("icon", "").isNull());
    EXPECT_TRUE(bundle.pathForResource("", "png").isNull());
    EXPECT_EQ(bundle.pathsForResourcesOfType("png"),
              (QStringList{resources + "/a.png", resources + "/icon.png"}));
    // The nearest enclosing ".app", not one that merely starts so.
    EXPECT_EQ(KVBundle::enclosingApplicationBundle(resources + "/S.app//Contents/x"),
              resources + "/S.app");
    EXPECT_TRUE(KVBundle::enclosingApplicationBundle("/a/P.apple/x").isNull());
    EXPECT_TRUE(KVBundle::enclosingApplicationBundle("/").isNull());
}

// Every value type survives both forms, with large negative integers, dates before
// 2001 (the binary epoch), bytes with zeros, and empty nested containers.
TEST_F(KVBundleTest, RoundTripsNestedPropertyListsInBothForms) {
    const QVariantMap value{
        {"string", "Grüße <&>"},
        {"integer", -(qlonglong(1) << 40)},
        {"no", false},
        {"real", 2.5},
        {"date", QDateTime(QDate(1999, 1, 2), QTime(3, 4, 5), QTimeZone::utc())},
        {"data", QByteArrayLiteral("\x00\x01\xfe\xff")},
        {"list", QVariantList{"a", true, QVariantMap{{"k", QVariantList{}}}}}};
    for (Format format : {Format::Xml, Format::Binary}) {
        ASSERT_TRUE(KVPropertyList::writeFile(value, folder + "/value.plist", format));
        const QVariantMap read = KVPropertyList::fromFile(folder + "/value.plist").toMap();
        EXPECT_EQ(read.keys(), value.keys());
        for (auto it = value.cbegin(); it != value.cend(); ++it)
            EXPECT_EQ(read.value(it.key()), it.value()) << qPrintable(it.key()) << int(format);
    }
}
