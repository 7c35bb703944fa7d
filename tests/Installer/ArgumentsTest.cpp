// The command line and the completion of the product description, run in
// process on real bundles and folders.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "InstallerWinController.h"
#include "KVInstallerInterface.h"
#include "LogCapture.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class ArgumentsTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("args");
        product = TestBundle::make(folder + "/Volumes/Disk", "Product",
                                   {{"CFBundleSignature", "ABCD"},
                                    {"CFBundleShortVersionString", "2.1"},
                                    {"LSMinimumSystemVersion", "1.0"}});
        destination = folder + "/Applications";
        QDir().mkpath(destination);
    }

    // Runs the set-up after the log decision for an installer whose own
    // bundle lies at installerBundle; returns whether it completed.
    bool setUp(const QStringList &words, const QString &installerBundle = "/opt/Installer.app") {
        controller = std::make_unique<InstallerWinController>(
            QStringList{"/x/Installer.app/Contents/MacOS/Installer"} + words, installerBundle);
        LogCapture capture;
        const bool ok = controller->setUp();
        log = capture.messages();
        return ok;
    }
    QVariant arg(const QString &key) const { return controller->arguments().value(key); }
    int count(const QString &prefix) const {
        return int(std::count_if(log.cbegin(), log.cend(),
                                 [&](const QString &m) { return m.startsWith(prefix); }));
    }

    QString folder, product, destination;
    std::unique_ptr<InstallerWinController> controller;
    QStringList log;
};

TEST_F(ArgumentsTest, PairsBecomeKeysAndValuesAndProgramPathHasEmptyKey) {
    ASSERT_TRUE(setUp({"-sourcePath", product, "-productName", "A", "-productName", "B",
                       "-productCode", "ABCD", "EFGH", "-dangling"}));
    EXPECT_EQ(arg("").toString(), "/x/Installer.app/Contents/MacOS/Installer");
    EXPECT_EQ(arg("productName").toString(), "B");
    EXPECT_EQ(arg("productCode").toStringList(), (QStringList{"ABCD", "EFGH"}));
    EXPECT_FALSE(controller->arguments().contains("dangling"));
    EXPECT_EQ(log.value(0).left(12), "arguments: (");
}

TEST_F(ArgumentsTest, UnknownKeysAreKeptAndNegativeNumbersBecomeKeys) {
    ASSERT_TRUE(setUp(
        {"-sourcePath", product, "-NSDocumentRevisionsDebugMode", "YES", "-completionQuit", "-1"}));
    EXPECT_EQ(arg("NSDocumentRevisionsDebugMode").toString(), "YES");
    EXPECT_FALSE(controller->arguments().contains("completionQuit"));
}

TEST_F(ArgumentsTest, QuitCodesAreExtendedByProductCodesAfterTheirOwn) {
    ASSERT_TRUE(setUp({"-sourcePath", product, "-productCode", "ABCD", "-quitCode", "WXYZ"}));
    EXPECT_EQ(arg("productCode").toStringList(), QStringList{"ABCD"});
    EXPECT_EQ(arg("quitCode").toStringList(), (QStringList{"WXYZ", "ABCD"}));
}

TEST_F(ArgumentsTest, ProductCodeFallsBackToTheBundleSignatureAndBecomesTheQuitCode) {
    ASSERT_TRUE(setUp({"-sourcePath", product}));
    EXPECT_EQ(arg("productCode").toStringList(), QStringList{"ABCD"});
    EXPECT_EQ(arg("quitCode").toStringList(), QStringList{"ABCD"});
    EXPECT_EQ(arg("productName").toString(), "Product");
    EXPECT_EQ(log.last().left(20), "Updated arguments: {");
}

TEST_F(ArgumentsTest, SecondExtractionDoesNothing) {
    ASSERT_TRUE(setUp({"-sourcePath", product, "-productCode", "ABCD"}));
    LogCapture capture;
    controller->extractArguments();
    EXPECT_EQ(arg("productCode").toStringList(), QStringList{"ABCD"});
    EXPECT_TRUE(capture.messages().isEmpty());
}

TEST_F(ArgumentsTest, VersionFallbacksAreUsedButNotStored) {
    ASSERT_TRUE(setUp({"-sourcePath", product}));
    EXPECT_EQ(controller->productVersion(), "2.1");
    EXPECT_EQ(controller->minimumSystemVersion(), "1.0");
    EXPECT_FALSE(controller->arguments().contains("version"));
    EXPECT_FALSE(controller->arguments().contains("minSystemVersion"));
    EXPECT_TRUE(controller->isSystemAcceptable());
}

TEST_F(ArgumentsTest, MinimumSystemVersionAboveTheRunningOneIsNotAcceptable) {
    ASSERT_TRUE(setUp({"-sourcePath", product, "-minSystemVersion", "999.0"}));
    EXPECT_FALSE(controller->isSystemAcceptable());
    ASSERT_TRUE(setUp({"-sourcePath", product, "-version", "3"}));
    EXPECT_EQ(controller->productVersion(), "3");
}

TEST_F(ArgumentsTest, InstallerInsideTheProductInstallsTheEnclosingProduct) {
    const QString installer = product + "/Contents/Resources/Setup.app";
    ASSERT_TRUE(setUp({}, installer));
    EXPECT_EQ(arg("sourcePath").toString(), product);
    EXPECT_EQ(count("shortened path = "), 2);
    EXPECT_TRUE(log.contains("shortened path = " + product));
    EXPECT_EQ(arg("productName").toString(), "Product");
}

TEST_F(ArgumentsTest, SetupErrorsStopTheSetUpAndFinish) {
    EXPECT_FALSE(setUp({}, folder + "/Installer.app"));
    EXPECT_EQ(log.last(), "missing source path");
    EXPECT_TRUE(controller->isFinished());
    EXPECT_EQ(controller->outlets().introField->text(), "missing source path");
    EXPECT_FALSE(controller->arguments().contains("sourcePath"));

    EXPECT_FALSE(setUp({"-sourcePath", ""}));
    EXPECT_EQ(log.last(), "missing program name");

    const QString unsigned_ = TestBundle::make(folder, "Unsigned", {});
    EXPECT_FALSE(setUp({"-sourcePath", unsigned_}));
    EXPECT_EQ(log.last(), "missing product signature");
    EXPECT_EQ(count("Updated arguments"), 0);
}

TEST_F(ArgumentsTest, BadSourcesNeedAProductCodeAndDoNotCrash) {
    const QString plain = folder + "/plain.txt";
    TestEnvironment::writeFile(plain, "not a bundle");
    EXPECT_FALSE(setUp({"-sourcePath", plain}));
    EXPECT_EQ(log.last(), "missing product signature");

    const QString broken = TestBundle::make(folder, "Broken", {{"CFBundleSignature", "ABCD"}});
    TestEnvironment::writeFile(broken + "/Contents/Info.plist", "<plist><dict><key>CFBundle");
    EXPECT_FALSE(setUp({"-sourcePath", broken}));
    EXPECT_TRUE(setUp({"-sourcePath", broken, "-productCode", "ABCD"}));
    EXPECT_TRUE(controller->productVersion().isNull());
}

TEST_F(ArgumentsTest, DestinationWithMissingParentIsReplacedByApplicationsFolder) {
    ASSERT_TRUE(setUp({"-sourcePath", product, "-destinationPath", folder + "/nowhere/P.app"}));
    EXPECT_EQ(arg("destinationPath").toString(), "/opt/Product.app");
    ASSERT_TRUE(setUp({"-sourcePath", product, "-destinationPath", destination + "/Other.app"}));
    EXPECT_EQ(arg("destinationPath").toString(), destination + "/Other.app");
}

TEST_F(ArgumentsTest, WrapperInsertsItsFolderIntoTheDestination) {
    const QString wrapper = folder + "/Volumes/Disk/Product Folder";
    QDir().mkpath(wrapper);
    const QString given = destination + "/Product.app";
    ASSERT_TRUE(
        setUp({"-sourcePath", product, "-destinationPath", given, "-wrapperPath", wrapper}));
    EXPECT_EQ(arg("destinationPath").toString(), destination + "/Product Folder/Product.app");
    EXPECT_TRUE(log.contains("wrapper = " + wrapper));

    // A destination already inside a folder of the wrapper's name stays.
    QDir().mkpath(destination + "/Product Folder");
    const QString inside = destination + "/Product Folder/Product.app";
    ASSERT_TRUE(
        setUp({"-sourcePath", product, "-destinationPath", inside, "-wrapperPath", wrapper}));
    EXPECT_EQ(arg("destinationPath").toString(), inside);
}

TEST_F(ArgumentsTest, WrapperOutsideTheSourceFolderOrMissingIsDropped) {
    const QString outside = folder + "/Elsewhere";
    QDir().mkpath(outside);
    const QString given = destination + "/Product.app";
    for (const QString &wrapper : {outside, folder + "/Volumes/Disk/Missing"}) {
        ASSERT_TRUE(
            setUp({"-sourcePath", product, "-destinationPath", given, "-wrapperPath", wrapper}));
        EXPECT_FALSE(controller->arguments().contains("wrapperPath")) << qPrintable(wrapper);
        EXPECT_EQ(arg("destinationPath").toString(), given);
    }
}

TEST_F(ArgumentsTest, DocumentationIsKeptOnlyWhenItExists) {
    const QString doc = folder + "/Read Me.pdf";
    TestEnvironment::writeFile(doc, "%PDF");
    ASSERT_TRUE(setUp({"-sourcePath", product, "-documentationPath", doc}));
    EXPECT_EQ(arg("documentationPath").toString(), doc);
    ASSERT_TRUE(setUp({"-sourcePath", product, "-documentationPath", folder + "/none.pdf"}));
    EXPECT_FALSE(controller->arguments().contains("documentationPath"));
}

TEST_F(ArgumentsTest, PathsWithSpacesNewlinesAndOddBytesSurvive) {
    const QString odd = TestBundle::make(folder + "/a b\nc",
                                         "Pr\xc3\xb6"
                                         "duct",
                                         {{"CFBundleSignature", "ABCD"}});
    ASSERT_TRUE(setUp({"-sourcePath", odd}));
    EXPECT_EQ(arg("sourcePath").toString(), odd);
    EXPECT_EQ(arg("productName").toString(), QString::fromUtf8("Pr\xc3\xb6"
                                                               "duct"));
    // Bytes that are no UTF-8 arrive replaced, and the set-up still ends cleanly.
    EXPECT_FALSE(setUp({"-sourcePath", QString::fromLocal8Bit("/tmp/\xff\xfe.app")}));
    EXPECT_EQ(log.last(), "missing product signature");
}

TEST_F(ArgumentsTest, LaunchModeNeedsThreeWordsAndNoLanguageFlag) {
    const auto launched = [](const QStringList &argv) {
        return InstallerWinController(argv, "/opt/I.app").isLaunchedWithArguments();
    };
    EXPECT_FALSE(launched({"/p"}));
    EXPECT_FALSE(launched({"/p", "-productName"}));
    EXPECT_TRUE(launched({"/p", "-productName", "X"}));
    EXPECT_FALSE(launched({"/p", "-AppleLanguages", "(de)"}));
    EXPECT_TRUE(launched({"/p", "-AppleLanguagesX", "(de)"}));
}

}  // namespace
