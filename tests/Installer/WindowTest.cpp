#include <gtest/gtest.h>

#include <QDesktopServices>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTextBrowser>

#include "FifoWatch.h"
#include "InstallerRun.h"
#include "InstallerWindow.h"
#include "WindowShot.h"

namespace {

const char *const kSchemes[] = {"file", "https", "http"};

class WindowTest : public testing::Test, protected InstallerRun::SetUpController {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("window");
        product = TestBundle::make(folder, "Product",
                                   {{"CFBundleSignature", "KvW1"},
                                    {"CFBundleShortVersionString", "2.1"},
                                    {"LSMinimumSystemVersion", "1.0"}});
        for (const char *scheme : kSchemes)
            QDesktopServices::setUrlHandler(scheme, &opened, "setSource");
    }
    void TearDown() override {
        for (const char *scheme : kSchemes) QDesktopServices::unsetUrlHandler(scheme);
        controller.reset();
    }

    bool setUp(const QStringList &words, const QString &installerBundle = "/opt/Installer.app") {
        return setUpController(QStringList{"/x/Installer"} + words, installerBundle);
    }
    QStringList productWords(const QStringList &more) const {
        return QStringList{"-sourcePath", product} + more;
    }
    // The page, the two buttons' titles ("-" for a hidden one) and the quits.
    QString seen() const {
        const auto title = [](const QPushButton *b) { return b->isHidden() ? "-" : b->text(); };
        return QString("%1 %2/%3 q%4")
            .arg(ui().tabView->currentIndex())
            .arg(title(ui().installButton), title(ui().cancelButton))
            .arg(quits->count());
    }
    QVariant arg(const QString &key) const { return controller->arguments().value(key); }
    bool has(const QString &key) const { return controller->arguments().contains(key); }
    QString file(const QString &name, const QByteArray &contents) const {
        return TestEnvironment::writeFile(folder + "/" + name, contents) ? folder + "/" + name : "";
    }
    void click(QAbstractButton *button) const { QTest::mouseClick(button, Qt::LeftButton); }

    QString folder, product;
    QTextBrowser opened;  // what the window asks the desktop to open, instead of a browser
};
using ArgumentsTest = WindowTest;

// A key without value vanishes, and so does a negative number (a key).
TEST_F(ArgumentsTest, WordsPairIntoKeysAndCodesCollect) {
    ASSERT_TRUE(setUp(productWords({"-productName", "A", "-productName", "B", "-productCode",
                                    "ABCD", "EFGH", "-quitCode", "WXYZ", "-Unknown", "YES",
                                    "-version", "3", "-completionQuit", "-1", "-dangling"})));
    EXPECT_EQ(arg("productName").toString() + arg("Unknown").toString(), "BYES");
    EXPECT_EQ(arg("quitCode").toStringList(), (QStringList{"WXYZ", "ABCD", "EFGH"}));
    EXPECT_FALSE(has("completionQuit") || has("dangling"));
    EXPECT_EQ(controller->productVersion(), "3");
    EXPECT_EQ(arg("productCode").toStringList(), (QStringList{"ABCD", "EFGH"}));
    // Inside the product, the installer takes what it lacks from there. Neither the icon nor
    // an image in the read-me waits on a FIFO or reads a device.
    FifoWatch fifo(folder + "/pipe.png");
    const QString readMe = file("ReadMe.html", "<p>Read me<img src=pipe.png><img src=/dev/zero>");
    ASSERT_TRUE(setUp({"-readMePath", readMe, "-iconPath", folder + "/pipe.png"},
                      product + "/Contents/Resources/Installer.app"));
    EXPECT_TRUE(fifo.made() && !fifo.readerWaited());
    EXPECT_TRUE(ui().readMeTextView->toPlainText().startsWith("Read me"));
    EXPECT_EQ(
        log.filter("shortened path = "),
        (QStringList{"shortened path = " + product + "/Contents", "shortened path = " + product}));
    EXPECT_EQ(arg("productCode").toStringList() + arg("quitCode").toStringList(),
              (QStringList{"KvW1", "KvW1"}));
    EXPECT_EQ(controller->minimumSystemVersion(), "1.0");
    EXPECT_FALSE(has("version") || has("minSystemVersion"));
}

TEST_F(WindowTest, ReadMeComesFirstAndTheButtonsAndKeysWalkBetweenThePages) {
    ASSERT_FALSE(setUp({}, folder + "/Loose/Installer.app"));
    EXPECT_EQ(ui().introField->text(), "missing source path");
    windowShot(*controller, "setup-error");
    EXPECT_EQ(seen(), "1 OK/- q0");
    click(ui().installButton);
    EXPECT_EQ(quits->count(), 1);

    const QString doc = file("Manual.pdf", "%PDF-1.4");
    ASSERT_TRUE(setUp(productWords(
        {"-readMePath", file("ReadMe.md", "# Hi\n\nThis is **P**."), "-documentationPath", doc})));
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    EXPECT_TRUE(ui().readMeTextView->toPlainText().contains("This is P."));
    windowShot(*controller, "read-me-page");
    click(ui().installButton);
    EXPECT_EQ(seen(), "1 Install/Go Back q0");
    EXPECT_EQ(ui().nameField->text() + "|" + ui().introField->text(),
              "Product 2.1|This installs Product on your computer.");
    windowShot(*controller, "install-page");
    click(ui().helpButton);
    EXPECT_EQ(opened.source().toLocalFile(), doc);
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(quits->count(), 1);

    ASSERT_TRUE(setUp(
        productWords({"-readMePath", folder + "/missing.rtf", "-completionQuit", "4294967.3"})));
    EXPECT_EQ(seen(), "1 Install/Go Back q0");
    EXPECT_TRUE(ui().helpButton->isHidden());
    // Months: no timer counts that far, and a wrapped count would quit at once.
    controller->installationFinished("Installation failed.");
    EXPECT_FALSE(quits->wait(1000));
}

TEST_F(WindowTest, TooOldSystemShowsTheSheetWhoseButtonsQuit) {
    ASSERT_TRUE(setUp(productWords({"-minSystemVersion", "99.0"})));
    QMessageBox *alert = controller->systemVersionAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_TRUE(alert->isVisible() && alert->windowModality() == Qt::WindowModal);
    EXPECT_EQ(alert->text(),
              "Product 2.1 cannot be installed on this computer because it requires Mac OS X 99.0 "
              "or newer.");
    windowShot(*controller, "too-old-sheet");
    for (QAbstractButton *button : alert->buttons())
        if (button->text() == "Visit Archive") click(button);
    EXPECT_EQ(quits->count(), 1);
    EXPECT_EQ(opened.source().scheme().left(4), "http");
}

}  // namespace
