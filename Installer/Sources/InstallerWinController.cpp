#include "InstallerWinController.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QMessageBox>
#include <QScreen>
#include <QShortcut>
#include <QStyle>
#include <QTextDocument>
#include <QThread>
#include <QTimer>
#include <climits>
#include <cstdio>
#include <functional>

#include "InstallerWindow.h"
#include "KVAppleEventManager.h"
#include "KVBundle.h"
#include "KVDocumentReader.h"
#include "KVFileManager.h"
#include "KVFourCharCode.h"
#include "KVInstallerInterface.h"
#include "KVLocalization.h"
#include "KVLog.h"
#include "KVPath.h"
#include "KVProcess.h"
#include "KVSound.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVWorkspace.h"
#include "SoundExtensions.h"
#include "ViewExtensions.h"

using namespace KVPath;

namespace {
// Return codes of the system-version alert's two buttons.
constexpr int kAlertFirstButtonReturn = 1000;
constexpr int kAlertSecondButtonReturn = 1001;

QString localized(const QString &key) { return KVLocalization::localizedString(key); }

// Messages separate their lines with carriage returns; labels break on
// line feeds.
QString forDisplay(QString text) { return text.replace(QLatin1Char('\r'), QLatin1Char('\n')); }

// Runs the action on the context's thread once the deadline has passed. A
// timer counts at most 2^31 - 1 milliseconds (24.8 days): a longer wait goes
// in such steps rather than wrap around into an early call.
void callAt(QDeadlineTimer deadline, QObject *context, const std::function<void()> &action) {
    const qint64 left = deadline.remainingTime();
    if (left == 0) {
        action();
        return;
    }
    const int step = left < 0 || left > INT_MAX ? INT_MAX : int(left);
    QTimer::singleShot(step, context, [=] { callAt(deadline, context, action); });
}

}  // namespace

InstallerWinController::InstallerWinController(const QStringList &argv,
                                               const QString &mainBundlePath, QObject *parent)
    : QObject(parent),
      m_argv(argv),
      m_mainBundlePath(mainBundlePath),
      m_window(std::make_unique<InstallerWindow>()) {
    m_ui.setupUi(m_window.get());
    m_titleTemplate = m_window->windowTitle();
    m_introTemplate = m_ui.introField->text();
    m_explanationTemplate = m_ui.explanationField->text();
    // Shown only while a run animates it, as a stopped spinner is not drawn.
    m_ui.progressIndicator->hide();
    // The name has a document's main-heading type, twice the text size and
    // bold, as a read-me's own heading has: one font for both, loaded once.
    QFont nameFont = m_ui.nameField->font();
    if (nameFont.pointSizeF() > 0)
        nameFont.setPointSizeF(nameFont.pointSizeF() * 2);
    else
        nameFont.setPixelSize(nameFont.pixelSize() * 2);
    nameFont.setBold(true);
    m_ui.nameField->setFont(nameFont);

    connect(m_ui.installButton, &QPushButton::clicked, this, &InstallerWinController::install);
    connect(m_ui.cancelButton, &QPushButton::clicked, this, &InstallerWinController::cancel);
    connect(m_ui.helpButton, &QPushButton::clicked, this,
            &InstallerWinController::openDocumentation);
    connect(m_window.get(), &InstallerWindow::cancelRequested, this, [this] {
        if (m_ui.cancelButton->isVisible() && m_ui.cancelButton->isEnabled()) cancel();
    });
}

InstallerWinController::~InstallerWinController() {
    // The event handler calls back into this object: installed, then removed.
    if (m_eventsInstalling.valid()) m_eventsInstalling.wait();
    if (m_receivesDoneEvents)
        KVAppleEventManager::sharedManager().removeEventHandler(KVFourCharCode::fromString("SinS"),
                                                                KVFourCharCode::fromString("Done"));
}

// ---------------------------------------------------------------------------
// Set-up

bool InstallerWinController::awakeFromNib() {
    installAppleEvents();
    decideLogDestination();
    return setUp();
}

bool InstallerWinController::setUp() {
    m_ui.nameField->setText(QString());
    // Showing the install page now would lay it out around its templates, and
    // again once the texts are in; it waits until the window shows.
    m_ui.installLayout->setEnabled(false);
    selectTab(1);
    extractArguments();
    if (!completeSourcePath() || !completeProductName()) return false;
    m_window->setWindowTitle(kvFormat(m_titleTemplate, productName()));
    readSourceInfo();
    readIcon();
    completeVersions();
    completeDestination();
    m_ui.pathField->setText(
        localizedPath(m_arguments.value(KVInstallerKeyDestinationPath).toString()));
    const QString documentation = m_arguments.value(KVInstallerKeyDocumentationPath).toString();
    if (m_arguments.contains(KVInstallerKeyDocumentationPath) &&
        !KVFileManager::fileExistsAtPath(documentation))
        m_arguments.remove(KVInstallerKeyDocumentationPath);
    if (!completeCodes()) return false;
    kvLog("Updated arguments: %@", m_arguments);
    // Nobody sees the window of an unattended run: it is not filled in.
    if (m_unattended) return true;
    showTexts();
    m_ui.messageField->hide();
    const int firstPage = loadReadMe();
    selectTab(firstPage);
    m_ui.checkmarkField->hide();
    showWindow();
    if (!m_systemAcceptable) showSystemVersionAlert();
    return true;
}

QString InstallerWinController::productName() const {
    return m_arguments.value(KVInstallerKeyProductName).toString();
}

void InstallerWinController::readIcon() {
    const QString iconPath = m_arguments.value(KVInstallerKeyIconPath).toString();
    // CFBundleIconFile names an .icns file, or carries its own extension.
    const QString bundleIconPath = m_source ? m_source->iconFilePath() : QString();
    // Decoding is a good part of the start-up; it runs beside the rest of the
    // set-up and is collected when the window first shows.
    m_iconReading = std::async(std::launch::async, [iconPath, bundleIconPath] {
        QImage image;
        if (!iconPath.isEmpty()) image = KVWorkspace::imageAtPath(iconPath);
        if (image.isNull() && !bundleIconPath.isNull())
            image = KVWorkspace::imageAtPath(bundleIconPath);
        // The screen's format, converted in place, so that the pixmap can
        // take the pixels over as they are.
        image.convertTo(image.hasAlphaChannel() ? QImage::Format_ARGB32_Premultiplied
                                                : QImage::Format_RGB32);
        return image;
    });
}

void InstallerWinController::showIcon() {
    if (!m_iconReading.valid()) return;
    QImage image = m_iconReading.get();
    QPixmap pixmap =
        image.isNull() ? QPixmap() : QPixmap::fromImage(std::move(image), Qt::NoOpaqueDetection);
    if (pixmap.isNull()) {
        const QIcon icon =
            KVWorkspace::iconForFile(m_arguments.value(KVInstallerKeySourcePath).toString());
        if (!icon.isNull()) pixmap = icon.pixmap(128);
    }
    if (pixmap.isNull()) return;
    m_ui.iconField->setPixmap(pixmap);
    QApplication::setWindowIcon(QIcon(pixmap));
}

void InstallerWinController::showTexts() {
    const QString name = productName();
    m_ui.nameField->setText(m_version.isNull() ? name : name + kvFormat(" %@", m_version));
    m_ui.introField->setText(kvFormat(m_introTemplate, name));
    QString explanation = kvFormat(m_explanationTemplate, name);
    const bool hasDocumentation = m_arguments.contains(KVInstallerKeyDocumentationPath);
    if (hasDocumentation)
        explanation = kvFormat(
            "%@ %@",
            localized("If you wish to read the documentation first, click the \"?\" button."),
            explanation);
    m_ui.explanationField->setText(explanation);
    m_ui.helpButton->setVisible(hasDocumentation);
}

int InstallerWinController::loadReadMe() {
    const QString readMe = m_arguments.value(KVInstallerKeyReadMePath).toString();
    if (readMe.isEmpty() || !KVFileManager::fileExistsAtPath(readMe)) return 1;
    ViewExtensions::useLightAquaAppearance(m_ui.readMeTextView, true);
    auto *document = new KVDocumentReader::Document(m_ui.readMeTextView);
    KVDocumentReader::read(readMe, document);
    m_ui.readMeTextView->setDocument(document);
    return 0;
}

void InstallerWinController::completeWindow() {
    if (m_eventsInstalling.valid()) m_eventsInstalling.get();
    showIcon();
    m_ui.installLayout->setEnabled(true);
}

void InstallerWinController::showWindow() {
    completeWindow();
    m_window->adjustSize();
    if (const QScreen *screen = m_window->screen()) {
        QRect frame = m_window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        m_window->move(frame.topLeft());
    }
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
    if (const KVProcessRef me = KVProcess::currentProcess()) me->setFrontProcess();
}

void InstallerWinController::showSystemVersionAlert() {
    auto *alert = new QMessageBox(m_window.get());
    m_systemVersionAlert = alert;
    QPushButton *quitButton = alert->addButton(localized("Quit"), QMessageBox::AcceptRole);
    alert->addButton(localized("Visit Archive"), QMessageBox::ActionRole);
    alert->setDefaultButton(quitButton);
    alert->setIcon(QMessageBox::Critical);
    alert->setText(systemVersionText());
    alert->setInformativeText(
        kvFormat(localized("To check if an older version of %@ is available for your computer, "
                           "please visit our software archive."),
                 productName()));
    alert->setWindowModality(Qt::WindowModal);
    connect(alert, &QMessageBox::finished, this, [this, alert, quitButton] {
        const int code = alert->clickedButton() == quitButton || !alert->clickedButton()
                             ? kAlertFirstButtonReturn
                             : kAlertSecondButtonReturn;
        systemVersionAlertDidEnd(alert, code, nullptr);
    });
    alert->open();
}

QString InstallerWinController::systemVersionText() const {
    return kvFormat(
        localized("%1$@ %2$@ cannot be installed on this computer because it requires Mac OS X "
                  "%3$@ or newer."),
        productName(), m_version, m_minSystemVersion);
}

void InstallerWinController::systemVersionAlertDidEnd(QMessageBox *, int returnCode, void *) {
    if (returnCode == kAlertSecondButtonReturn) KVWorkspace::openURL(QUrl(softwareArchiveURL()));
    terminate();
}

void InstallerWinController::terminate() {
    emit terminationRequested();
    QApplication::quit();
}

QString InstallerWinController::softwareArchiveURL() {
    return KVUtilities::safeHTTPS(QStringLiteral(KV_ARCHIVE_URL));
}

// ---------------------------------------------------------------------------
// Pages and buttons

void InstallerWinController::selectTab(int page) {
    m_ui.tabView->setCurrentIndex(page);
    m_ui.installButton->setText(localized(page == 0 ? "Continue" : "Install"));
    if (m_arguments.contains(KVInstallerKeyReadMePath))
        m_ui.cancelButton->setText(localized(page == 0 ? "Cancel" : "Go Back"));
}

void InstallerWinController::install() {
    if (m_finished) {
        terminate();
        return;
    }
    if (m_ui.tabView->currentIndex() == 0) {
        selectTab(1);
        return;
    }
    m_ui.installButton->setEnabled(false);
    m_ui.cancelButton->setEnabled(false);
    // Holding Option (Alt) while starting the run forces the administrator path.
    m_optionKeyDown = QGuiApplication::queryKeyboardModifiers().testFlag(Qt::AltModifier);
    startInstallThread();
}

void InstallerWinController::startInstallThread() {
    // One thread per run, left to itself: quitting the program ends it.
    QThread *worker = QThread::create([this] { installThread(); });
    connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();
}

void InstallerWinController::cancel() {
    if (m_arguments.contains(KVInstallerKeyReadMePath) && m_ui.tabView->currentIndex() == 1) {
        selectTab(0);
        return;
    }
    terminate();
}

// ---------------------------------------------------------------------------
// The install run

void InstallerWinController::installThread() {
    const QString name = productName();
    kvLog("Install");
    QMetaObject::invokeMethod(this, "animateProgress", Qt::QueuedConnection,
                              Q_ARG(QString, QStringLiteral("YES")));
    quitProcesses();
    QString refusing = processToQuitStillRunning();
    if (!refusing.isNull()) {
        kvLog("%@ did not quit; will retry", refusing);
        for (int attempt = 0; attempt < 3 && !refusing.isNull(); ++attempt) {
            QThread::usleep(1000000);
            quitProcesses();
            refusing = processToQuitStillRunning();
        }
    }
    refusing = processToQuitStillRunning();
    QString outcome;
    if (!refusing.isNull()) {
        kvLog("%@ refused to quit; installation cancelled", refusing);
        m_failureStatus = InstallerExitStatus::RefusedToQuit;
        outcome = kvFormat(localized("%1$@ cannot be running during the installation.\rQuit %1$@, "
                                     "then click \"Install\" again."),
                           refusing);
    } else {
        outcome = installMyselfInDestination();
        if (!outcome.isEmpty()) {
            outcome = kvFormat(localized(outcome), name);
            if (!m_arguments.contains(KVInstallerKeyWrapperPath))
                outcome += kvFormat(
                    "\r%@", kvFormat(localized("Try installing %1$@ manually by copying it to the "
                                               "Applications folder."),
                                     name));
        }
    }
    QMetaObject::invokeMethod(this, "installationFinished", Qt::QueuedConnection,
                              Q_ARG(QString, outcome));
}

void InstallerWinController::installationFinished(const QString &message) {
    if (m_unattended) {
        finishUnattended(
            message.isNull() ? finalText("%@ was successfully installed.") : forDisplay(message),
            message.isNull() ? InstallerExitStatus::Installed : m_failureStatus);
        return;
    }
    if (!message.isNull()) {
        // The reason stays out of sight (the field was hidden by the set-up);
        // the log carries it.
        m_ui.messageField->setText(forDisplay(message));
        m_ui.cancelButton->setEnabled(true);
    } else {
        showFinalMessage("%@ was successfully installed.");
        kvLog("showing the success page");
        // Drawn only now: the style's icons cost a good share of start-up.
        if (m_ui.checkmarkField->pixmap().isNull())
            m_ui.checkmarkField->setPixmap(
                m_window->style()->standardIcon(QStyle::SP_DialogApplyButton).pixmap(64));
        m_ui.checkmarkField->show();
        m_ui.cancelButton->hide();
        m_ui.cancelButton->setEnabled(false);
        if (!KVUserDefaults::standardUserDefaults().boolForKey("nosound")) playDoneSound();
    }
    m_ui.installButton->setEnabled(true);
    animateProgress(QString());
    if (m_arguments.contains(KVInstallerCompletionQuit)) {
        const double delay =
            KVUserDefaults::doubleValue(m_arguments.value(KVInstallerCompletionQuit).toString());
        kvLog("quit delay: %1.1f", delay);
        if (delay > 0) {
            // Beyond what a deadline counts, as good as never.
            const QDeadlineTimer deadline = delay * 1000.0 < 9e18
                                                ? QDeadlineTimer(qRound64(delay * 1000.0))
                                                : QDeadlineTimer(QDeadlineTimer::Forever);
            callAt(deadline, this, [this] { terminate(); });
        }
    }
}

void InstallerWinController::installAppleEvents() {
    // Taking the name on the session bus waits on the bus more than once; it
    // runs beside the set-up and is awaited before the window shows.
    m_eventsInstalling = std::async(std::launch::async, [this] {
        KVAppleEventManager::sharedManager().setEventHandler(
            KVFourCharCode::fromString("SinS"), KVFourCharCode::fromString("Done"),
            [this](const QString &text) { installationDone(text); });
        // Only once the handler is in place (the log decision waits for it).
        kvLog("AppleEvents installed");
    });
    m_receivesDoneEvents = true;
}

void InstallerWinController::installationDone(const QString &directParameter) {
    const QString label = installationInProgress();
    kvLog("received Done event (%@), current installation: %@", directParameter, label);
    if (label.isNull() || label != directParameter) return;
    kvLog("installation finished");
    // Unattended, the worker's own report ends the run: it comes once the
    // launch is over, and the exit status is its.
    if (m_unattended) return;
    QMetaObject::invokeMethod(this, "installationFinished", Qt::QueuedConnection,
                              Q_ARG(QString, QString()));
}

void InstallerWinController::animateProgress(const QString &flag) {
    m_ui.progressIndicator->setVisible(!flag.isNull());
}

void InstallerWinController::openDocumentation() {
    if (!m_arguments.contains(KVInstallerKeyDocumentationPath)) {
        kvLog("documentation path missing");
        QApplication::beep();
        return;
    }
    KVWorkspace::openFile(m_arguments.value(KVInstallerKeyDocumentationPath).toString());
}

// ---------------------------------------------------------------------------
// Command line and log

bool InstallerWinController::isLaunchedWithArguments() const {
    return isLaunchedWithArguments(m_argv);
}

bool InstallerWinController::isLaunchedWithArguments(const QStringList &argv) {
    return argv.size() >= 3 && argv[1] != QLatin1String("-AppleLanguages");
}

void InstallerWinController::decideLogDestination() {
    // The event handler's line comes first, where standard error went before.
    if (m_eventsInstalling.valid()) m_eventsInstalling.wait();
    if (!isLaunchedWithArguments()) {
        kvLog("direct invocation");
        return;
    }
    // Append-only, run after run; a stream that cannot be reopened there goes
    // to /dev/null rather than to a terminal nobody reads.
    const QByteArray path = logFilePath().toLocal8Bit();
    if (!std::freopen(path.constData(), "a+", stdout)) std::freopen("/dev/null", "a+", stdout);
    if (!std::freopen(path.constData(), "a+", stderr)) std::freopen("/dev/null", "a+", stderr);
}

void InstallerWinController::extractArguments() {
    if (m_argumentsExtracted) return;
    m_argumentsExtracted = true;
    kvLog("arguments: %@", m_argv);
    QString key = QStringLiteral("");
    for (const QString &word : m_argv) {
        if (word.startsWith(QLatin1Char('-'))) {
            key = word.mid(1);
        } else if (key.endsWith(QLatin1String("Code"))) {
            QStringList list = m_arguments.value(key).toStringList();
            list << word;
            m_arguments.insert(key, list);
        } else {
            m_arguments.insert(key, word);
        }
    }
}

// ---------------------------------------------------------------------------
// Completion of the description

bool InstallerWinController::completeSourcePath() {
    if (m_arguments.contains(KVInstallerKeySourcePath)) return true;
    // An installer kept inside the product (say in its Resources) installs the
    // product that contains it.
    QString path = stringByDeletingLastPathComponent(m_mainBundlePath);
    if (path.size() >= 2 && !path.endsWith(QLatin1String(".app"))) {
        do {
            path = stringByDeletingLastPathComponent(path);
            kvLog("shortened path = %@", path);
        } while (path.size() > 1 && !path.endsWith(QLatin1String(".app")));
    }
    if (!path.endsWith(QLatin1String(".app"))) {
        playDoneSound();
        showSetupError("missing source path");
        return false;
    }
    m_arguments.insert(KVInstallerKeySourcePath, path);
    return true;
}

bool InstallerWinController::completeProductName() {
    if (m_arguments.contains(KVInstallerKeyProductName)) return true;
    const QString source = m_arguments.value(KVInstallerKeySourcePath).toString();
    const QString name = stringByDeletingPathExtension(lastPathComponent(source));
    if (name.isEmpty()) {
        showSetupError("missing program name");
        return false;
    }
    m_arguments.insert(KVInstallerKeyProductName, name);
    return true;
}

void InstallerWinController::readSourceInfo() {
    m_source = KVBundle::bundleWithPath(m_arguments.value(KVInstallerKeySourcePath).toString());
    m_sourceInfo = m_source ? m_source->infoDictionary() : QVariantMap();
}

void InstallerWinController::completeVersions() {
    const auto given = [this](const QString &key, const char *infoKey) {
        if (m_arguments.contains(key)) return m_arguments.value(key).toString();
        const QVariant fallback = m_sourceInfo.value(QLatin1String(infoKey));
        return fallback.typeId() == QMetaType::QString ? fallback.toString() : QString();
    };
    m_version = given(KVInstallerKeyVersion, "CFBundleShortVersionString");
    m_minSystemVersion = given(KVInstallerKeyMinSystemVersion, "LSMinimumSystemVersion");
    m_systemAcceptable = m_minSystemVersion.isNull() ||
                         KVUtilities::compareVersion(KVUtilities::systemVersionString(),
                                                     m_minSystemVersion) != NSOrderedAscending;
}

void InstallerWinController::completeDestination() {
    const QString source = m_arguments.value(KVInstallerKeySourcePath).toString();
    const QString candidate =
        m_arguments.contains(KVInstallerKeyDestinationPath)
            ? m_arguments.value(KVInstallerKeyDestinationPath).toString()
            : findPreferredDestinationFor(m_arguments.value(KVInstallerKeyProductName).toString());
    bool parentIsFolder = false;
    QString destination;
    if (!candidate.isNull() &&
        KVFileManager::fileExistsAtPath(stringByDeletingLastPathComponent(candidate),
                                        &parentIsFolder) &&
        parentIsFolder) {
        destination = candidate;
    } else {
        destination =
            stringByAppendingPathComponent(applicationsDirectory(), lastPathComponent(source));
    }

    if (m_arguments.contains(KVInstallerKeyWrapperPath)) {
        const QString wrapper = m_arguments.value(KVInstallerKeyWrapperPath).toString();
        if (wrapper.startsWith(stringByDeletingLastPathComponent(source)) &&
            KVFileManager::fileExistsAtPath(wrapper)) {
            kvLog("wrapper = %@", wrapper);
            const QString parent = stringByDeletingLastPathComponent(destination);
            if (lastPathComponent(parent) != lastPathComponent(wrapper))
                destination = stringByAppendingPathComponent(
                    stringByAppendingPathComponent(parent, lastPathComponent(wrapper)),
                    lastPathComponent(destination));
        } else {
            m_arguments.remove(KVInstallerKeyWrapperPath);
        }
    }
    m_arguments.insert(KVInstallerKeyDestinationPath, destination);
}

bool InstallerWinController::completeCodes() {
    QStringList productCodes;
    if (m_arguments.contains(KVInstallerKeyProductCode)) {
        productCodes = m_arguments.value(KVInstallerKeyProductCode).toStringList();
    } else if (m_sourceInfo.contains(QStringLiteral("CFBundleSignature"))) {
        productCodes << m_sourceInfo.value(QStringLiteral("CFBundleSignature")).toString();
        m_arguments.insert(KVInstallerKeyProductCode, productCodes);
    } else {
        showSetupError("missing product signature");
        return false;
    }
    if (m_arguments.contains(KVInstallerKeyQuitCode)) {
        m_arguments.insert(KVInstallerKeyQuitCode,
                           m_arguments.value(KVInstallerKeyQuitCode).toStringList() + productCodes);
    } else {
        m_arguments.insert(KVInstallerKeyQuitCode, productCodes);
    }
    return true;
}

// ---------------------------------------------------------------------------
// Setup errors and the final message

void InstallerWinController::showSetupError(const QString &message) {
    kvLog("%@", message);
    if (m_unattended) {
        finishUnattended(finalText(message), InstallerExitStatus::BadArguments);
        return;
    }
    showFinalMessage(message);
    completeWindow();
    // The window is on screen as loaded, so the message can be read; the
    // set-up ends before it would centre it and bring it forward.
    m_window->show();
    // A title whose template was never filled would show its placeholder.
    if (m_window->windowTitle().contains(QLatin1Char('%'))) m_window->setWindowTitle(QString());
}

void InstallerWinController::showFinalMessage(const QString &key) {
    m_ui.cancelButton->hide();
    m_ui.installButton->setText(localized("OK"));
    m_ui.pathField->hide();
    m_ui.explanationField->hide();
    m_ui.messageField->hide();
    m_ui.helpButton->hide();
    m_ui.introField->setText(finalText(key));
    m_finished = true;
}

QString InstallerWinController::finalText(const QString &key) const {
    return forDisplay(kvFormat(localized(key), productName()));
}

void InstallerWinController::playDoneSound() {
    // Unattended, nobody waits at the window for it (and on a fleet it would
    // sound in rooms where people work); the exit status tells the script.
    if (m_unattended) return;
    if (m_arguments.value(KVInstallerCompletionSound).toString() != QLatin1String("YES")) return;
    // The installer's own bundle first (it is the main bundle when the
    // installer runs as an application), then the named-sound lookup.
    std::shared_ptr<KVSound> sound;
    if (const auto own = KVBundle::bundleWithPath(m_mainBundlePath)) {
        const QString path = own->pathForResource(QStringLiteral("Done"), QStringLiteral("wav"));
        if (!path.isNull()) sound = std::make_shared<KVSound>(path);
    }
    if (!sound) sound = KVSound::soundNamed(QStringLiteral("Done"));
    if (!sound) return;
    sound->setVolume(SoundExtensions::alertVolume());
    SoundExtensions::playAsSoundEffect(*sound);
}
