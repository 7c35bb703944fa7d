// The installer window driven as a user would: clicks and keys on the real
// widgets (offscreen platform), real bundles, real read-me files.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QLabel>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTranslator>

#include "InstallerWinController.h"
#include "InstallerWindow.h"
#include "KVBundle.h"
#include "KVLocalization.h"
#include "KVPropertyList.h"
#include "LogCapture.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

// Receives what the window asks the desktop to open, instead of a browser.
class OpenedUrls : public QObject {
    Q_OBJECT
public:
    QList<QUrl> urls;
public slots:
    void open(const QUrl &url) { urls << url; }
};

namespace {

class WindowTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("window");
        product = TestBundle::make(
            folder, "Product",
            {{"CFBundleSignature", "KvW1"}, {"CFBundleShortVersionString", "2.1"}});
        for (const char *scheme : {"file", "https", "http"})
            QDesktopServices::setUrlHandler(scheme, &opened, "open");
    }
    void TearDown() override {
        for (const char *scheme : {"file", "https", "http"})
            QDesktopServices::unsetUrlHandler(scheme);
        controller.reset();
    }

    // Sets up a controller on the words; returns whether the set-up completed.
    bool setUp(const QStringList &words, const QString &installerBundle = "/opt/Installer.app") {
        controller = std::make_unique<InstallerWinController>(QStringList{"/x/Installer"} + words,
                                                              installerBundle);
        quits = std::make_unique<QSignalSpy>(controller.get(),
                                             &InstallerWinController::terminationRequested);
        LogCapture capture;
        const bool ok = controller->setUp();
        log = capture.messages();
        return ok;
    }
    QStringList productWords() const {
        return {"-sourcePath", product, "-destinationPath", folder + "/Product.app"};
    }
    const Ui::InstallerWindow &ui() const { return controller->outlets(); }
    int page() const { return ui().tabView->currentIndex(); }
    QString readMe(const QString &name, const QByteArray &contents) const {
        const QString path = folder + "/" + name;
        TestEnvironment::writeFile(path, contents);
        return path;
    }
    // Saves the window as a PNG when screenshots are asked for.
    void screenshot(const QString &name) const {
        const QString dir = qEnvironmentVariable("KV_SCREENSHOT_DIR");
        if (dir.isEmpty()) return;
        QDir().mkpath(dir);
        QPixmap shot = controller->window()->grab();
        if (QMessageBox *alert = controller->systemVersionAlert(); alert && alert->isVisible()) {
            // A sheet hangs from the window's title: draw it there, framed.
            QPainter painter(&shot);
            const QPixmap sheet = alert->grab();
            const QRect frame((shot.width() - sheet.width()) / 2, 0, sheet.width(), sheet.height());
            painter.fillRect(shot.rect(), QColor(0, 0, 0, 40));
            painter.drawPixmap(frame.topLeft(), sheet);
            painter.setPen(QColor(0, 0, 0, 90));
            painter.drawRect(frame.adjusted(0, -1, -1, -1));
        }
        shot.save(dir + "/" + name + ".png");
    }

    // Whether every text shown on the install page spans the page's text
    // column, to its right edge, with room for its whole text at that width.
    bool installPageLaidOut() const {
        const QWidget *page = ui().installPage;
        for (const QLabel *label : page->findChildren<QLabel *>()) {
            if (!label->isVisibleTo(page) || label->text().isEmpty()) continue;
            const int needed = label->hasHeightForWidth() ? label->heightForWidth(label->width())
                                                          : label->sizeHint().height();
            if (!page->rect().contains(label->geometry()) || label->height() < needed ||
                label->x() != ui().nameField->x() ||
                label->geometry().right() != page->rect().right()) {
                ADD_FAILURE() << qPrintable(label->objectName()) << " at "
                              << qPrintable(QDebug::toString(label->geometry())) << " needs "
                              << needed;
                return false;
            }
        }
        return true;
    }

    QString folder, product;
    OpenedUrls opened;
    std::unique_ptr<InstallerWinController> controller;
    std::unique_ptr<QSignalSpy> quits;
    QStringList log;
};

TEST_F(WindowTest, WithoutReadMeTheInstallPageComesFirstAndCancelQuits) {
    ASSERT_TRUE(setUp(productWords()));
    EXPECT_TRUE(controller->window()->isVisible());
    EXPECT_EQ(page(), 1);
    EXPECT_EQ(ui().installButton->text(), "Install");
    EXPECT_EQ(ui().cancelButton->text(), "Cancel");
    EXPECT_EQ(controller->window()->windowTitle(), "Install Product");
    EXPECT_EQ(ui().nameField->text(), "Product 2.1");
    EXPECT_EQ(ui().introField->text(), "This installs Product on your computer.");
    EXPECT_EQ(ui().pathField->text(), folder + "/Product");
    EXPECT_TRUE(ui().messageField->isHidden());
    EXPECT_TRUE(ui().checkmarkField->isHidden());
    EXPECT_TRUE(ui().helpButton->isHidden());
    EXPECT_TRUE(installPageLaidOut());
    screenshot("install-page");
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

TEST_F(WindowTest, ReadMeComesFirstAndTheButtonsWalkBetweenThePages) {
    const QString path = readMe("ReadMe.md", "# Welcome\n\nThis is **Product**.\n");
    ASSERT_TRUE(setUp(productWords() + QStringList{"-readMePath", path}));
    EXPECT_EQ(page(), 0);
    EXPECT_EQ(ui().installButton->text(), "Continue");
    EXPECT_EQ(ui().cancelButton->text(), "Cancel");
    EXPECT_TRUE(ui().readMeTextView->toPlainText().contains("This is Product."));
    screenshot("read-me-page");
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(page(), 1);
    EXPECT_EQ(ui().installButton->text(), "Install");
    EXPECT_EQ(ui().cancelButton->text(), "Go Back");
    EXPECT_TRUE(installPageLaidOut());
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(page(), 0);
    EXPECT_EQ(quits->count(), 0);
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

TEST_F(WindowTest, ReadMeKeyWithoutFileStartsOnTheInstallPageWithGoBack) {
    ASSERT_TRUE(setUp(productWords() + QStringList{"-readMePath", folder + "/missing.rtf"}));
    EXPECT_EQ(page(), 1);
    EXPECT_EQ(ui().cancelButton->text(), "Go Back");
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(page(), 0);
    EXPECT_EQ(ui().installButton->text(), "Continue");
    EXPECT_TRUE(ui().readMeTextView->toPlainText().isEmpty());
}

TEST_F(WindowTest, RichTextReadMeShowsItsTextNotItsCode) {
    const QString path = readMe("ReadMe.rtf",
                                "{\\rtf1\\ansi{\\fonttbl\\f0\\fswiss Helvetica;}\\f0\\pard "
                                "Read {\\b this} first.\\par Caf\\'e9.}");
    ASSERT_TRUE(setUp(productWords() + QStringList{"-readMePath", path}));
    const QString text = ui().readMeTextView->toPlainText();
    EXPECT_TRUE(text.contains("Read this first.")) << qPrintable(text);
    EXPECT_TRUE(text.contains(QString::fromUtf8("Caf\xc3\xa9."))) << qPrintable(text);
    EXPECT_FALSE(text.contains("rtf")) << qPrintable(text);
}

TEST_F(WindowTest, KeyboardReturnPressesTheMainButtonAndEscapeCancels) {
    const QString path = readMe("ReadMe.txt", "Plain words.");
    ASSERT_TRUE(setUp(productWords() + QStringList{"-readMePath", path}));
    ui().installButton->setFocus();
    QTest::keyClick(controller->window(), Qt::Key_Return);
    EXPECT_EQ(page(), 1);
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(page(), 0);
    EXPECT_EQ(quits->count(), 0);
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(quits->count(), 1);
}

TEST_F(WindowTest, HelpButtonOpensTheDocumentationOrLogsAndBeeps) {
    const QString doc = readMe("Manual.pdf", "%PDF-1.4");
    ASSERT_TRUE(setUp(productWords() + QStringList{"-documentationPath", doc}));
    EXPECT_FALSE(ui().helpButton->isHidden());
    EXPECT_TRUE(ui().explanationField->text().startsWith(
        "If you wish to read the documentation first, click the \"?\" button. Product goes"));
    QTest::mouseClick(ui().helpButton, Qt::LeftButton);
    ASSERT_EQ(opened.urls.size(), 1);
    EXPECT_EQ(opened.urls.first().toLocalFile(), doc);

    ASSERT_TRUE(setUp(productWords()));
    LogCapture capture;
    controller->openDocumentation();
    EXPECT_EQ(capture.messages(), QStringList{"documentation path missing"});
    EXPECT_EQ(opened.urls.size(), 1);
}

TEST_F(WindowTest, IconComesFromTheIconPathThenTheBundleIconFile) {
    QImage red(32, 32, QImage::Format_ARGB32);
    red.fill(Qt::red);
    const QString png = folder + "/icon.png";
    ASSERT_TRUE(red.save(png));
    ASSERT_TRUE(setUp(productWords() + QStringList{"-iconPath", png}));
    EXPECT_EQ(ui().iconField->pixmap().toImage().pixelColor(5, 5), QColor(Qt::red));

    QImage blue(64, 64, QImage::Format_ARGB32);
    blue.fill(Qt::blue);
    QImageWriter icns(product + "/Contents/Resources/Product.icns", "icns");
    ASSERT_TRUE(icns.write(blue)) << qPrintable(icns.errorString());
    KVPropertyList::writeFile(QVariantMap{{"CFBundleSignature", "KvW1"},
                                          {"CFBundleExecutable", "Product"},
                                          {"CFBundleIconFile", "Product"}},
                              product + "/Contents/Info.plist", KVPropertyList::Format::Xml);
    ASSERT_TRUE(setUp(productWords()));
    EXPECT_EQ(ui().iconField->pixmap().toImage().pixelColor(5, 5), QColor(Qt::blue));
    EXPECT_FALSE(QApplication::windowIcon().isNull());

    // A name that lies about the format: the content decides.
    QFile::remove(product + "/Contents/Resources/Product.icns");
    ASSERT_TRUE(QFile::copy(png, product + "/Contents/Resources/Product.icns"));
    ASSERT_TRUE(setUp(productWords()));
    EXPECT_EQ(ui().iconField->pixmap().toImage().pixelColor(5, 5), QColor(Qt::red));

    // A set-up that fails after reading the icon still shows it.
    const QString unsigned_ = TestBundle::make(folder, "Unsigned", {});
    ASSERT_FALSE(setUp({"-sourcePath", unsigned_, "-iconPath", png}));
    EXPECT_EQ(ui().iconField->pixmap().toImage().pixelColor(5, 5), QColor(Qt::red));
}

TEST_F(WindowTest, SetupErrorsShowTheirMessageAndOKQuits) {
    ASSERT_FALSE(setUp({}, folder + "/Loose/Installer.app"));
    EXPECT_EQ(ui().introField->text(), "missing source path");
    EXPECT_EQ(ui().installButton->text(), "OK");
    EXPECT_TRUE(ui().cancelButton->isHidden());
    EXPECT_TRUE(ui().pathField->isHidden());
    EXPECT_TRUE(ui().explanationField->isHidden());
    EXPECT_TRUE(ui().helpButton->isHidden());
    EXPECT_TRUE(controller->isFinished());
    EXPECT_TRUE(controller->window()->isVisible());
    // The title template was never filled: blanked rather than showing "%@".
    EXPECT_EQ(controller->window()->windowTitle(), "");
    EXPECT_TRUE(installPageLaidOut());
    screenshot("setup-error");
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);

    const QString unsigned_ = TestBundle::make(folder, "Unsigned", {});
    ASSERT_FALSE(setUp({"-sourcePath", unsigned_}));
    EXPECT_EQ(ui().introField->text(), "missing product signature");
    EXPECT_EQ(controller->window()->windowTitle(), "Install Unsigned");
}

TEST_F(WindowTest, TooOldSystemShowsTheSheetWhoseButtonsQuit) {
    ASSERT_TRUE(setUp(productWords() + QStringList{"-minSystemVersion", "99.0"}));
    QMessageBox *alert = controller->systemVersionAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_TRUE(alert->isVisible());
    EXPECT_EQ(alert->windowModality(), Qt::WindowModal);
    EXPECT_EQ(alert->text(),
              "Product 2.1 cannot be installed on this computer because it requires Mac OS X "
              "99.0 or newer.");
    EXPECT_EQ(alert->informativeText(),
              "To check if an older version of Product is available for your computer, please "
              "visit our software archive.");
    EXPECT_EQ(alert->icon(), QMessageBox::Critical);
    const QList<QAbstractButton *> buttons = alert->buttons();
    ASSERT_EQ(buttons.size(), 2);
    screenshot("too-old-sheet");
    QAbstractButton *visit = buttons[0]->text() == "Visit Archive" ? buttons[0] : buttons[1];
    QTest::mouseClick(visit, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
    ASSERT_EQ(opened.urls.size(), 1);
    EXPECT_EQ(opened.urls.first().scheme(), "https");

    ASSERT_TRUE(setUp(productWords() + QStringList{"-minSystemVersion", "99.0"}));
    QAbstractButton *quit = nullptr;
    for (QAbstractButton *b : controller->systemVersionAlert()->buttons())
        if (b->text() == "Quit") quit = b;
    ASSERT_NE(quit, nullptr);
    QTest::mouseClick(quit, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
    EXPECT_EQ(opened.urls.size(), 1);
}

TEST_F(WindowTest, UnknownVersionShowsTheNameAloneAndNullInTheSheet) {
    const QString bare = TestBundle::make(folder, "Bare", {{"CFBundleSignature", "KvW2"}});
    ASSERT_TRUE(setUp({"-sourcePath", bare, "-minSystemVersion", "99"}));
    EXPECT_EQ(ui().nameField->text(), "Bare");
    EXPECT_TRUE(controller->systemVersionAlert()->text().startsWith("Bare (null) cannot"));
}

TEST_F(WindowTest, GermanLocaleTranslatesTheWindow) {
    const auto bundle = KVBundle::bundleWithPath(KV_INSTALLER_APP);
    ASSERT_TRUE(bundle);
    QTranslator translator;
    ASSERT_TRUE(translator.load(QLocale(QLocale::German, QLocale::Germany), "Installer", "_",
                                bundle->resourcePath()));
    QApplication::installTranslator(&translator);
    const QString path = readMe("ReadMe.txt", "Willkommen.");
    ASSERT_TRUE(setUp(productWords() + QStringList{"-readMePath", path}));
    EXPECT_EQ(ui().installButton->text(), QString::fromUtf8("Weiter"));
    EXPECT_EQ(controller->window()->windowTitle(), "Product installieren");
    controller->selectTab(1);
    EXPECT_EQ(ui().installButton->text(), "Installieren");
    EXPECT_EQ(ui().cancelButton->text(), QString::fromUtf8("Zur\xc3\xbc"
                                                           "ck"));
    screenshot("install-page-german");
    QApplication::removeTranslator(&translator);
}

}  // namespace

#include "WindowTest.moc"
