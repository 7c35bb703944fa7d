// Paths' edge cases, and real bundles and property lists on disk.
#include <gtest/gtest.h>
#include <pwd.h>

#include <QDir>
#include <QFileInfo>

#include "FifoWatch.h"
#include "KVBundle.h"
#include "KVPath.h"
#include "KVPropertyList.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using KVPropertyList::Format;

TEST(KVPathTest, SplitsAndJoinsComponentsLikeThePlatform) {
    // path, last component, without it, extension, without the extension
    // clang-format off
    const QString cases[][5] = {
        {"/tmp/", "tmp", "/", "", "/tmp"}, {"/", "/", "/", "", "/"}, {"", "", "", "", ""},
        {"scratch///", "scratch", "", "", "scratch"},
        {".scratch.tiff", ".scratch.tiff", "", "tiff", ".scratch"},
        {"/tmp/scratch..tiff", "scratch..tiff", "/tmp", "tiff", "/tmp/scratch."},
        {"/a/.tiff", ".tiff", "/a", "", "/a/.tiff"}, {"/a.b/c", "c", "/a.b", "", "/a.b/c"}};
    const QString joined[][3] = {
        {"/", "x", "/x"}, {"", "x", "x"}, {"/tmp/", "", "/tmp"}, {"/tmp", "/a//b/", "/tmp/a/b"}};
    // clang-format on
    for (const auto &c : cases) {
        const QStringList got{
            KVPath::lastPathComponent(c[0]), KVPath::stringByDeletingLastPathComponent(c[0]),
            KVPath::pathExtension(c[0]), KVPath::stringByDeletingPathExtension(c[0])};
        EXPECT_EQ(got, QStringList({c[1], c[2], c[3], c[4]})) << qPrintable(c[0]);
    }
    for (const auto &c : joined)
        EXPECT_EQ(KVPath::stringByAppendingPathComponent(c[0], c[1]), c[2]) << qPrintable(c[0]);
    EXPECT_EQ(KVPath::stringByAppendingPathExtension("/tmp/x/", "tiff"), "/tmp/x.tiff");
}

// Only home and what lies in it abbreviate, never a sibling sharing its
// prefix, and nothing when home is "/".
TEST(KVPathTest, ExpandsAndAbbreviatesTheHomeFolder) {
    const QString home = QFile::decodeName(qgetenv("HOME"));
    const passwd *root = getpwnam("root");
    ASSERT_TRUE(root);
    // clang-format off
    const QString expanded[][2] = {
        {"~/", home}, {"~root/x", QFile::decodeName(root->pw_dir) + "/x"},
        {"~nosuchuser/x", "~nosuchuser/x"}, {"/a/~", "/a/~"}};
    const QString abbreviated[][2] = {
        {home + "/", "~"}, {home + "/x", "~/x"}, {home + "x", home + "x"}, {"/tmp/x", "/tmp/x"}};
    // clang-format on
    for (const auto &c : expanded)
        EXPECT_EQ(KVPath::stringByExpandingTildeInPath(c[0]), c[1]) << qPrintable(c[0]);
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

// Anything malformed or missing gives an empty dictionary.
TEST_F(KVBundleTest, ReadsBothPlistFormsAndNothingFromAMalformedOne) {
    const QByteArray xml = KVPropertyList::toData(info, Format::Xml);
    const QByteArray binary = KVPropertyList::toData(info, Format::Binary);
    const std::pair<const char *, QByteArray> cases[] = {
        {"Xml", xml},
        {"Binary", binary},
        {"Garbage", QByteArrayLiteral("\x00\xff\x13garbage\x80\x81")},
        {"ArrayRoot", KVPropertyList::toData(QVariantList{1, 2}, Format::Xml)},
        {"Empty", QByteArray()}};
    for (const auto &[name, bytes] : cases)
        ASSERT_TRUE(
            TestEnvironment::writeFile(folder + "/" + name + ".app/Contents/Info.plist", bytes));
    QDir().mkpath(folder + "/Directory.app/Contents/Info.plist");
    for (const QString &name : QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const bool wellFormed = name == "Xml.app" || name == "Binary.app";
        EXPECT_EQ(KVBundle::bundleWithPath(folder + "/" + name)->infoDictionary().keys(),
                  wellFormed ? info.keys() : QStringList())
            << qPrintable(name);
    }
}

// Only an existing folder is a bundle, kept without redundant slashes.
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

// Arrays of one element each, the innermost holding the string "x".
static QByteArray nested(int depth, Format format) {
    QVariant value = QString("x");
    for (int i = 0; i < depth; ++i) value = QVariantList{value};
    return KVPropertyList::toData(value, format);
}

// Refused before the (recursive) parser sees them: 257 levels in both forms,
// 200,000 in a 3 MB text; 256 levels are read.
TEST(KVPropertyListTest, NestingDeeperThanAnyRealListIsRefusedBeforeParsing) {
    const QByteArray deepXml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
        QByteArray("<array>").repeated(200000) + "<string>x</string>" +
        QByteArray("</array>").repeated(200000) + "</plist>\n";
    const std::pair<QByteArray, bool> cases[] = {{nested(256, Format::Xml), true},
                                                 {nested(256, Format::Binary), true},
                                                 {nested(257, Format::Xml), false},
                                                 {nested(257, Format::Binary), false},
                                                 {deepXml, false}};
    for (const auto &[data, valid] : cases)
        EXPECT_EQ(KVPropertyList::fromData(data).isValid(), valid) << data.left(60).toHex().data();
    QVariant inner = KVPropertyList::fromData(nested(256, Format::Binary));
    for (int level = 0; level < 256; ++level) inner = inner.toList().value(0);
    EXPECT_EQ(inner, "x");
}

// An Info.plist that is a FIFO is no list: never opened, never waited on.
TEST(KVPropertyListTest, OnlyARegularFileIsRead) {
    const QString path = TestEnvironment::makeTempDir("plist") + "/Info.plist";
    FifoWatch fifo(path);
    ASSERT_TRUE(fifo.made());
    EXPECT_FALSE(KVPropertyList::fromFile(path).isValid());
    EXPECT_FALSE(KVPropertyList::fromFile("/dev/zero").isValid());
    EXPECT_FALSE(fifo.readerWaited());
}
