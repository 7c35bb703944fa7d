// The set-up in process: the description completed from the command line and
// real bundles, and the window driven as a user would, with clicks and keys
// on the real widgets (offscreen).
#include <gtest/gtest.h>

#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTextDocument>
#include <QTranslator>

#include "FifoWatch.h"
#include "InstallerWinController.h"
#include "InstallerWindow.h"
#include "KVBundle.h"
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
        product = TestBundle::make(folder, "Product",
                                   {{"CFBundleSignature", "KvW1"},
                                    {"CFBundleShortVersionString", "2.1"},
                                    {"LSMinimumSystemVersion", "1.0"}});
        for (const char *scheme : {"file", "https", "http"})
            QDesktopServices::setUrlHandler(scheme, &opened, "open");
    }
    void TearDown() override {
        for (const char *scheme : {"file", "https", "http"})
            QDesktopServices::unsetUrlHandler(scheme);
        controller.reset();
    }

    // Runs the set-up after the log decision; returns whether it completed.
    bool setUp(const QStringList &words, const QString &installerBundle = "/opt/Installer.app") {
        controller = std::make_unique<InstallerWinController>(
            QStringList{"/x/Installer.app/Contents/MacOS/Installer"} + words, installerBundle);
        quits = std::make_unique<QSignalSpy>(controller.get(),
                                             &InstallerWinController::terminationRequested);
        LogCapture capture;
        const bool ok = controller->setUp();
        log = capture.messages();
        return ok;
    }
    QStringList productWords(const QStringList &more = {}) const {
        return QStringList{"-sourcePath", product, "-destinationPath", folder + "/Product.app"} +
               more;
    }
    const Ui::InstallerWindow &ui() const { return controller->outlets(); }
    // What the user sees: the page, the two buttons' titles ("-" for a hidden
    // one) and how often the program was asked to end.
    QString seen() const {
        const auto title = [](const QPushButton *b) { return b->isHidden() ? "-" : b->text(); };
        return QString("%1 %2/%3 q%4")
            .arg(ui().tabView->currentIndex())
            .arg(title(ui().installButton), title(ui().cancelButton))
            .arg(quits->count());
    }
    // The install page's parts the set-up hid.
    QStringList hidden() const {
        QStringList names;
        for (const QWidget *w : std::initializer_list<const QWidget *>{
                 ui().pathField, ui().explanationField, ui().messageField, ui().helpButton})
            if (w->isHidden()) names << w->objectName();
        return names;
    }
    QVariant arg(const QString &key) const { return controller->arguments().value(key); }
    bool has(const QString &key) const { return controller->arguments().contains(key); }
    QString file(const QString &name, const QByteArray &contents) const {
        TestEnvironment::writeFile(folder + "/" + name, contents);
        return folder + "/" + name;
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
    // The install page is laid out once, late: every text shown must still
    // span the text column to the page's right edge, with room for all of it.
    void expectInstallPageLaidOut() const {
        const QWidget *page = ui().installPage;
        for (const QLabel *label : page->findChildren<QLabel *>()) {
            if (!label->isVisibleTo(page) || label->text().isEmpty()) continue;
            const QRect r = label->geometry();
            const int needed = label->hasHeightForWidth() ? label->heightForWidth(r.width())
                                                          : label->sizeHint().height();
            EXPECT_TRUE(page->rect().contains(r) && r.height() >= needed &&
                        r.x() == ui().nameField->x() && r.right() == page->rect().right())
                << qPrintable(label->objectName()) << qPrintable(QDebug::toString(r));
        }
    }

    QString folder, product;
    OpenedUrls opened;
    std::unique_ptr<InstallerWinController> controller;
    std::unique_ptr<QSignalSpy> quits;
    QStringList log;
};
using ArgumentsTest = WindowTest;

// The pairing rules the products rely on: the last value wins, "Code" keys
// collect lists, a key without value and a negative number (a key) vanish;
// quit codes get the product codes after their own, once.
TEST_F(ArgumentsTest, WordsPairIntoKeysAndCodesCollect) {
    ASSERT_TRUE(setUp(productWords({"-productName", "A", "-productName", "B", "-productCode",
                                    "ABCD", "EFGH", "-quitCode", "WXYZ", "-Unknown", "YES",
                                    "-version", "3", "-completionQuit", "-1", "-dangling"})));
    EXPECT_EQ(arg("").toString(), "/x/Installer.app/Contents/MacOS/Installer");
    EXPECT_EQ(arg("productName").toString() + arg("Unknown").toString(), "BYES");
    EXPECT_EQ(arg("productCode").toStringList(), (QStringList{"ABCD", "EFGH"}));
    EXPECT_EQ(arg("quitCode").toStringList(), (QStringList{"WXYZ", "ABCD", "EFGH"}));
    EXPECT_FALSE(has("completionQuit") || has("dangling"));
    EXPECT_EQ(controller->productVersion(), "3");
    controller->extractArguments();
    EXPECT_EQ(arg("productCode").toStringList(), (QStringList{"ABCD", "EFGH"}));

    // Without codes the bundle's signature is both; its versions are used
    // but not written into the description.
    ASSERT_TRUE(setUp(productWords()));
    EXPECT_EQ(arg("productCode").toStringList() + arg("quitCode").toStringList(),
              (QStringList{"KvW1", "KvW1"}));
    EXPECT_EQ(controller->minimumSystemVersion(), "1.0");
    EXPECT_FALSE(has("version") || has("minSystemVersion"));
}

// A destination whose folder is missing falls back to the Applications
// folder; a wrapper inside the source's folder adds its own folder once, any
// other is dropped so that the run does not pass it on.
TEST_F(ArgumentsTest, DestinationAndWrapperFolder) {
    const QString wrapper = folder + "/Product Folder";
    const QString outside = TestEnvironment::makeTempDir("elsewhere");
    const QString to = folder + "/Apps/Product.app", inside = folder + "/Apps/Product Folder/P.app";
    for (const QString &path : {wrapper, folder + "/Apps/Product Folder"}) QDir().mkpath(path);
    const QString cases[][3] = {{folder + "/nowhere/P.app", {}, "/opt/Product.app"},
                                {to, wrapper, folder + "/Apps/Product Folder/Product.app"},
                                {inside, wrapper, inside},
                                {to, outside, to},
                                {to, folder + "/Missing", to}};
    for (const auto &[given, wrapperPath, expected] : cases) {
        ASSERT_TRUE(setUp(
            {"-sourcePath", product, "-destinationPath", given, "-wrapperPath", wrapperPath}));
        EXPECT_EQ(arg("destinationPath").toString(), expected) << qPrintable(wrapperPath);
        EXPECT_EQ(has("wrapperPath"), wrapperPath == wrapper);
        EXPECT_EQ(log.contains("wrapper = " + wrapper), wrapperPath == wrapper);
    }
}

// Each way the description stays incomplete ends the set-up with its message
// in the window and OK to quit, and never shows a title's placeholder.
TEST_F(WindowTest, SetupErrorsShowTheirMessageAndOKQuits) {
    const QString opt = "/opt/Installer.app";
    const QString cases[][3] = {
        {folder + "/Loose/Installer.app", {}, "missing source path"},
        {opt, "", "missing program name"},
        {opt, TestBundle::make(folder, "Unsigned", {}), "missing product signature"}};
    for (const auto &[installer, source, message] : cases) {
        ASSERT_FALSE(
            setUp(source.isNull() ? QStringList() : QStringList{"-sourcePath", source}, installer));
        EXPECT_EQ(log.last(), message);
        EXPECT_TRUE(log.filter("Updated arguments").isEmpty());
        EXPECT_TRUE(controller->isFinished() && controller->window()->isVisible());
        EXPECT_FALSE(controller->window()->windowTitle().contains('%'));
        EXPECT_EQ(ui().introField->text(), message);
        EXPECT_EQ(hidden(),
                  (QStringList{"pathField", "explanationField", "messageField", "helpButton"}));
        expectInstallPageLaidOut();
        if (installer != opt) screenshot("setup-error");
        EXPECT_EQ(seen(), "1 OK/- q0");
        QTest::mouseClick(ui().installButton, Qt::LeftButton);
        EXPECT_EQ(quits->count(), 1);
    }
}

// With a read-me the buttons walk between the pages before they quit: by
// click, by Return (the main button) and by Escape (Cancel / Go Back).
TEST_F(WindowTest, ReadMeComesFirstAndTheButtonsAndKeysWalkBetweenThePages) {
    ASSERT_TRUE(setUp(productWords({"-readMePath", file("ReadMe.md", "# Hi\n\nThis is **P**.")})));
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    EXPECT_TRUE(ui().readMeTextView->toPlainText().contains("This is P."));
    screenshot("read-me-page");
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(seen(), "1 Install/Go Back q0");
    expectInstallPageLaidOut();
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    ui().installButton->setFocus();
    QTest::keyClick(controller->window(), Qt::Key_Return);
    EXPECT_EQ(seen(), "1 Install/Go Back q0");
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    QTest::keyClick(controller->window(), Qt::Key_Escape);
    EXPECT_EQ(quits->count(), 1);

    // The key still counts when its file is missing: the install page comes
    // first, and Go Back leads to an empty read-me page.
    ASSERT_TRUE(setUp(productWords({"-readMePath", folder + "/missing.rtf"})));
    EXPECT_EQ(seen(), "1 Install/Go Back q0");
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(seen(), "0 Continue/Cancel q0");
    EXPECT_TRUE(ui().readMeTextView->toPlainText().isEmpty());
}

// The "?" button appears only with documentation that exists; without, the
// action logs and opens nothing.
TEST_F(WindowTest, HelpButtonOpensTheDocumentationOrLogsAndInstallPageWithoutIt) {
    const QString doc = file("Manual.pdf", "%PDF-1.4");
    ASSERT_TRUE(setUp(productWords({"-documentationPath", doc})));
    EXPECT_EQ(hidden(), QStringList{"messageField"});
    EXPECT_TRUE(ui().explanationField->text().startsWith(
        "If you wish to read the documentation first, click the \"?\" button. Product goes"));
    QTest::mouseClick(ui().helpButton, Qt::LeftButton);
    ASSERT_EQ(opened.urls.size(), 1);
    EXPECT_EQ(opened.urls.first().toLocalFile(), doc);

    // Missing documentation is no documentation; without a read-me the
    // install page comes first, and Cancel quits.
    ASSERT_TRUE(setUp(productWords({"-documentationPath", folder + "/none.pdf"})));
    EXPECT_FALSE(has("documentationPath"));
    EXPECT_EQ(hidden(), (QStringList{"messageField", "helpButton"}));
    LogCapture capture;
    controller->openDocumentation();
    EXPECT_EQ(capture.messages(), QStringList{"documentation path missing"});
    EXPECT_EQ(opened.urls.size(), 1);
    EXPECT_TRUE(controller->window()->isVisible());
    EXPECT_EQ(seen(), "1 Install/Cancel q0");
    EXPECT_EQ(controller->window()->windowTitle(), "Install Product");
    EXPECT_EQ(ui().nameField->text(), "Product 2.1");
    EXPECT_EQ(ui().introField->text(), "This installs Product on your computer.");
    EXPECT_EQ(ui().pathField->text(), folder + "/Product");
    EXPECT_TRUE(ui().checkmarkField->isHidden());
    expectInstallPageLaidOut();
    screenshot("install-page");
    QTest::mouseClick(ui().cancelButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

// The icon path comes first, then the bundle's icon file, read by its name's
// format but by its content when the name lies; also after a failed set-up.
TEST_F(WindowTest, IconComesFromTheIconPathThenTheBundleIconFile) {
    const auto colour = [&] { return ui().iconField->pixmap().toImage().pixelColor(5, 5); };
    QImage image(32, 32, QImage::Format_ARGB32);
    image.fill(Qt::red);
    const QString png = folder + "/icon.png", icns = product + "/Contents/Resources/Product.icns";
    ASSERT_TRUE(image.save(png));
    image.fill(Qt::blue);
    ASSERT_TRUE(image.save(icns, "png"));
    KVPropertyList::writeFile(QVariantMap{{"CFBundleSignature", "KvW1"},
                                          {"CFBundleExecutable", "Product"},
                                          {"CFBundleIconFile", "Product"}},
                              product + "/Contents/Info.plist", KVPropertyList::Format::Xml);
    ASSERT_TRUE(setUp(productWords({"-iconPath", png})));
    EXPECT_EQ(colour(), QColor(Qt::red));
    ASSERT_TRUE(setUp(productWords()));
    EXPECT_EQ(colour(), QColor(Qt::blue));
    EXPECT_FALSE(QApplication::windowIcon().isNull());
    ASSERT_FALSE(
        setUp({"-sourcePath", TestBundle::make(folder, "Unsigned", {}), "-iconPath", png}));
    EXPECT_EQ(colour(), QColor(Qt::red));
}

// What a product brings is read only from regular files, within limits: a
// read-me image or an icon that is a FIFO or a device never holds up the
// window; the read-me's text shows and the bundle's own icon stands in.
TEST_F(WindowTest, HostileReadMeImagesAndIconsNeverHoldUpTheWindow) {
    FifoWatch fifo(folder + "/pipe.png");
    ASSERT_TRUE(fifo.made());
    QFile::link("/dev/zero", folder + "/zero.png");
    const QString readMe = file("ReadMe.html",
                                "<html><body><p>Read me</p><img src=\"pipe.png\">"
                                "<img src=\"zero.png\"><img src=\"/dev/zero\"></body></html>");
    ASSERT_TRUE(setUp(productWords({"-readMePath", readMe, "-iconPath", folder + "/pipe.png"})));
    QTextDocument *document = ui().readMeTextView->document();
    document->adjustSize();  // lays the images out, which loads them
    ui().readMeTextView->grab();
    EXPECT_TRUE(document->toPlainText().contains("Read me"));
    EXPECT_FALSE(fifo.readerWaited());
}

// A "Done" event's text comes from outside: the line that logs it carries
// only so much of it. The quit delay is honoured however long: more than a
// timer counts (2^32 ms and a little) does not wrap around into a quit at once.
TEST_F(WindowTest, AHugeDoneEventAndAQuitDelayOfMonths) {
    ASSERT_TRUE(setUp(productWords({"-completionQuit", "4294967.297"})));
    LogCapture capture;
    controller->installationDone(QString(8 * 1024 * 1024, QLatin1Char('x')));
    const QStringList lines = capture.messages();
    ASSERT_EQ(lines.size(), 1);
    EXPECT_LE(lines[0].size(), 17000);
    static const QRegularExpression cut(
        "^received Done event \\(x+\\.\\.\\. \\(\\d+ more characters\\)$");
    EXPECT_TRUE(cut.match(lines[0]).hasMatch()) << qPrintable(lines[0].right(80));
    controller->installationFinished("Installation failed.");
    EXPECT_EQ(capture.messages().mid(1), QStringList{"quit delay: 4294967.3"});
    EXPECT_FALSE(quits->wait(1500));
}

// A too-old system gets a window-modal sheet; both its buttons quit, the
// second after opening the archive page.
TEST_F(WindowTest, TooOldSystemShowsTheSheetWhoseButtonsQuit) {
    const auto click = [&](const QString &title) {
        for (QAbstractButton *b : controller->systemVersionAlert()->buttons())
            if (b->text() == title) return QTest::mouseClick(b, Qt::LeftButton);
        ADD_FAILURE() << "no button " << qPrintable(title);
    };
    ASSERT_TRUE(setUp(productWords({"-minSystemVersion", "99.0"})));
    QMessageBox *alert = controller->systemVersionAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_FALSE(controller->isSystemAcceptable());
    EXPECT_TRUE(alert->isVisible());
    EXPECT_EQ(alert->windowModality(), Qt::WindowModal);
    EXPECT_EQ(alert->text(),
              "Product 2.1 cannot be installed on this computer because it requires Mac OS X "
              "99.0 or newer.");
    EXPECT_EQ(alert->informativeText(),
              "To check if an older version of Product is available for your computer, please "
              "visit our software archive.");
    EXPECT_EQ(alert->icon(), QMessageBox::Critical);
    EXPECT_EQ(alert->buttons().size(), 2);
    screenshot("too-old-sheet");
    click("Visit Archive");
    EXPECT_EQ(quits->count(), 1);
    ASSERT_EQ(opened.urls.size(), 1);
    EXPECT_EQ(opened.urls.first().scheme(), "https");

    // Without any version the name stands alone, and the sheet says "(null)".
    const QString bare = TestBundle::make(folder, "Bare", {{"CFBundleSignature", "KvW2"}});
    ASSERT_TRUE(setUp({"-sourcePath", bare, "-minSystemVersion", "99"}));
    EXPECT_EQ(ui().nameField->text(), "Bare");
    EXPECT_TRUE(controller->systemVersionAlert()->text().startsWith("Bare (null) cannot"));
    click("Quit");
    EXPECT_EQ(quits->count(), 1);
    EXPECT_EQ(opened.urls.size(), 1);
}

TEST_F(WindowTest, GermanLocaleTranslatesTheWindow) {
    const auto bundle = KVBundle::bundleWithPath(KV_INSTALLER_APP);
    ASSERT_TRUE(bundle);
    QTranslator translator;
    ASSERT_TRUE(translator.load(QLocale(QLocale::German, QLocale::Germany), "Installer", "_",
                                bundle->resourcePath()));
    QApplication::installTranslator(&translator);
    ASSERT_TRUE(setUp(productWords({"-readMePath", file("ReadMe.txt", "Willkommen.")})));
    EXPECT_EQ(seen(), "0 Weiter/Abbrechen q0");
    EXPECT_EQ(controller->window()->windowTitle(), "Product installieren");
    controller->selectTab(1);
    EXPECT_EQ(seen(), QString::fromUtf16(u"1 Installieren/Zur\u00FCck q0"));
    screenshot("install-page-german");
    QApplication::removeTranslator(&translator);
}

}  // namespace

#include "WindowTest.moc"
