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

// Only home and what lies in it abbreviate, never a sibling sharing its
// prefix, and nothing when home is "/".
TEST(KVPathTest, SplitsJoinsExpandsAndAbbreviatesLikeThePlatform) {
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
    for (const auto &[path, component, result] : joined)
        EXPECT_EQ(KVPath::stringByAppendingPathComponent(path, component), result);
    EXPECT_EQ(KVPath::stringByAppendingPathExtension("/tmp/x/", "tiff"), "/tmp/x.tiff");

    const QString home = QFile::decodeName(qgetenv("HOME"));
    EXPECT_EQ(KVPath::stringByExpandingTildeInPath("~root/x"),
              QFile::decodeName(getpwnam("root")->pw_dir) + "/x");
    for (const char *kept : {"~nosuchuser/x", "/a/~"})
        EXPECT_EQ(KVPath::stringByExpandingTildeInPath(kept), QString(kept));
    EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath(home + "/"), "~");
    EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath(home + "x"), home + "x");
    qputenv("HOME", "/");
    EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath("/tmp/x"), "/tmp/x");
    qputenv("HOME", QFile::encodeName(home));
}

// Only an existing folder is a bundle, kept without redundant slashes.
TEST(KVBundleTest, FindsItsExecutableAndResources) {
    const QString folder = TestEnvironment::makeTempDir("bundles");
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/file.app", "x"));
    EXPECT_FALSE(KVBundle::bundleWithPath(folder + "/file.app"));
    const QString path = TestBundle::make(folder, "P", {{"CFBundleName", "P"}});
    const QString resources = path + "/Contents/Resources";
    ASSERT_TRUE(TestEnvironment::writeFile(resources + "/README", "x"));
    const KVBundle bundle = *KVBundle::bundleWithPath(path + "//");
    EXPECT_EQ(bundle.bundlePath(), path);
    EXPECT_TRUE(QFileInfo(bundle.executablePath()).isExecutable());
    EXPECT_EQ(bundle.pathForResource("README", ""), resources + "/README");
    EXPECT_TRUE(bundle.pathForResource("READ", "").isNull());
    // The nearest enclosing ".app", not one that merely starts so.
    EXPECT_EQ(KVBundle::enclosingApplicationBundle(resources + "/S.app//Contents/x"),
              resources + "/S.app");
    EXPECT_TRUE(KVBundle::enclosingApplicationBundle("/a/P.apple/x").isNull());
}

// Lists from hostile bundles: too deep ones are refused before the
// (recursive) parser sees them, and an Info.plist that is no regular file is
// never opened nor waited on.
TEST(KVPropertyListTest, ReadsBothFormsAndRefusesMalformedOrTooDeepLists) {
    const auto nested = [](int depth, Format format) {  // the innermost holds "x"
        QVariant value = QString("x");
        for (int i = 0; i < depth; ++i) value = QVariantList{value};
        return KVPropertyList::toData(value, format);
    };
    const QVariantMap info{{"CFBundleIdentifier", "org.example.product"}};
    const QByteArray deepXml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
        QByteArray("<array>").repeated(200000) + "<string>x</string>" +
        QByteArray("</array>").repeated(200000) + "</plist>\n";
    // clang-format off
    const std::pair<QByteArray, bool> cases[] = {
        {KVPropertyList::toData(info, Format::Xml), true},
        {KVPropertyList::toData(info, Format::Binary), true},
        {QByteArrayLiteral("\x00\xff\x13garbage\x80\x81"), false}, {QByteArray(), false},
        {nested(256, Format::Xml), true}, {nested(256, Format::Binary), true},
        {nested(257, Format::Xml), false}, {nested(257, Format::Binary), false}, {deepXml, false}};
    // clang-format on
    for (const auto &[data, valid] : cases)
        EXPECT_EQ(KVPropertyList::fromData(data).isValid(), valid) << data.left(60).toHex().data();
    EXPECT_EQ(KVPropertyList::fromData(cases[1].first).toMap(), info);
    QVariant inner = KVPropertyList::fromData(nested(256, Format::Binary));
    for (int level = 0; level < 256; ++level) inner = inner.toList().value(0);
    EXPECT_EQ(inner, "x");

    const QString folder = TestEnvironment::makeTempDir("plist");
    FifoWatch fifo(folder + "/fifo.plist");
    ASSERT_TRUE(fifo.made() && QDir().mkpath(folder + "/folder.plist"));
    for (const QString &path :
         {folder + "/fifo.plist", folder + "/folder.plist", QString("/dev/zero")})
        EXPECT_FALSE(KVPropertyList::fromFile(path).isValid()) << qPrintable(path);
    EXPECT_FALSE(fifo.readerWaited());
}
