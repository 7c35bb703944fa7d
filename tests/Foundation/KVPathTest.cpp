#include <gtest/gtest.h>
#include <pwd.h>

#include <QFile>

#include "KVPath.h"

namespace {
// Points HOME elsewhere for one test and puts it back afterwards.
class HomeOverride {
public:
    explicit HomeOverride(const QString &home) : m_saved(qgetenv("HOME")) {
        qputenv("HOME", QFile::encodeName(home));
    }
    ~HomeOverride() { qputenv("HOME", m_saved); }

private:
    QByteArray m_saved;
};

const QString kOdd = "/tmp/Mein Ordner\nneu";
}  // namespace

TEST(KVPathTest, SplitsComponentsAndExtensionsLikeThePlatform) {
    // path, lastPathComponent, stringByDeletingLastPathComponent, pathExtension,
    // stringByDeletingPathExtension
    const QString cases[][5] = {
        {"/tmp/scratch.tiff", "scratch.tiff", "/tmp", "tiff", "/tmp/scratch"},
        {"/tmp/lock/", "lock", "/tmp", "", "/tmp/lock"},
        {"/tmp/", "tmp", "/", "", "/tmp"},
        {"/tmp", "tmp", "/", "", "/tmp"},
        {"/", "/", "/", "", "/"},
        {"", "", "", "", ""},
        {"a", "a", "", "", "a"},
        {"scratch///", "scratch", "", "", "scratch"},
        {"scratch.tiff", "scratch.tiff", "", "tiff", "scratch"},
        {".scratch.tiff", ".scratch.tiff", "", "tiff", ".scratch"},
        {"/tmp/scratch..tiff", "scratch..tiff", "/tmp", "tiff", "/tmp/scratch."},
        {".profile", ".profile", "", "", ".profile"},
        {"/a/.tiff", ".tiff", "/a", "", "/a/.tiff"},
        {"/a.b/c", "c", "/a.b", "", "/a.b/c"},
        {"/a/B.app/", "B.app", "/a", "app", "/a/B"},
        {"scratch.bundle/", "scratch.bundle", "", "bundle", "scratch"},
        {kOdd + "/Grüße – 日本.ü ber", "Grüße – 日本.ü ber", kOdd, "ü ber",
         kOdd + "/Grüße – 日本"}};
    for (const auto &c : cases) {
        const std::string path = c[0].toStdString();
        EXPECT_EQ(KVPath::lastPathComponent(c[0]), c[1]) << path;
        EXPECT_EQ(KVPath::stringByDeletingLastPathComponent(c[0]), c[2]) << path;
        EXPECT_EQ(KVPath::pathExtension(c[0]), c[3]) << path;
        EXPECT_EQ(KVPath::stringByDeletingPathExtension(c[0]), c[4]) << path;
    }
}

TEST(KVPathTest, AppendsAComponentWithExactlyOneSlash) {
    const QString cases[][3] = {{"/tmp", "x.tiff", "/tmp/x.tiff"},
                                {"/tmp/", "x.tiff", "/tmp/x.tiff"},
                                {"/", "x.tiff", "/x.tiff"},
                                {"", "x.tiff", "x.tiff"},
                                {"/tmp/", "", "/tmp"},
                                {"/tmp", "/a//b/", "/tmp/a/b"},
                                {kOdd + "/", "Grüße.tiff", kOdd + "/Grüße.tiff"}};
    for (const auto &c : cases)
        EXPECT_EQ(KVPath::stringByAppendingPathComponent(c[0], c[1]), c[2]) << c[0].toStdString();
    EXPECT_EQ(KVPath::stringByAppendingPathExtension("/tmp/x/", "tiff"), "/tmp/x.tiff");
}

TEST(KVPathTest, ExpandsTheTildeOfTheUserOrOfANamedUser) {
    const passwd *root = getpwnam("root");
    ASSERT_TRUE(root);
    const HomeOverride home(kOdd);
    const QString cases[][2] = {{"~", kOdd},
                                {"~/", kOdd},
                                {"~/Grüße", kOdd + "/Grüße"},
                                {"~root/x", QFile::decodeName(root->pw_dir) + "/x"},
                                {"~nosuchuser/x", "~nosuchuser/x"},
                                {"/a/~", "/a/~"},
                                {"", ""}};
    for (const auto &c : cases)
        EXPECT_EQ(KVPath::stringByExpandingTildeInPath(c[0]), c[1]) << c[0].toStdString();
}

TEST(KVPathTest, AbbreviatesOnlyTheHomeFolderAndWhatLiesInIt) {
    const QString cases[][3] = {{"/home/user/", "/home/user", "~"},
                                {"/home/user", "/home/user/", "~"},
                                {"/home/user", "/home/user/x", "~/x"},
                                {"/home/user", "/home/userx", "/home/userx"},
                                {"/home/user", "/home/userx/y", "/home/userx/y"},
                                {"/home/user", "/home", "/home"},
                                {kOdd, kOdd + "/Grüße", "~/Grüße"},
                                // With "/" as home every path would start with "~".
                                {"/", "/", "/"},
                                {"/", "/tmp/x", "/tmp/x"}};
    for (const auto &c : cases) {
        const HomeOverride home(c[0]);
        EXPECT_EQ(KVPath::stringByAbbreviatingWithTildeInPath(c[1]), c[2]) << c[1].toStdString();
    }
}
