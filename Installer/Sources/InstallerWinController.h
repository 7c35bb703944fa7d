// The installer's one controller: it reads the command line, completes the
// description of the product, sets up the window and drives its two pages,
// chooses where the product goes and whether that place is writable, and
// asks running copies to quit.
#pragma once

#include <QImage>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <future>
#include <memory>
#include <optional>

#include "InstallerExitStatus.h"
#include "KVBundle.h"
#include "KVCompatibility.h"
#include "ui_InstallerWindow.h"

class InstallerWindow;
class QMessageBox;

class InstallerWinController : public QObject {
    Q_OBJECT

public:
    // argv is the process's argument vector as started, element 0 its path;
    // mainBundlePath the installer's own bundle. The window is created (from
    // the interface file) but not shown.
    InstallerWinController(const QStringList &argv, const QString &mainBundlePath,
                           QObject *parent = nullptr);
    ~InstallerWinController() override;

    // The whole set-up: log decision, then setUp(). False after a setup error.
    bool awakeFromNib();
    // The set-up after the log decision: command line, description, window
    // texts, first page, showing the window, the system check.
    bool setUp();

    const QVariantMap &arguments() const { return m_arguments; }
    bool isFinished() const { return m_finished; }
    bool isSystemAcceptable() const { return m_systemAcceptable; }
    // The version shown after the name and the minimum system version, with
    // the information dictionary's fallbacks (not stored in the arguments).
    QString productVersion() const { return m_version; }
    QString minimumSystemVersion() const { return m_minSystemVersion; }

    // The window and its outlets, for the tests and the screenshots.
    InstallerWindow *window() const { return m_window.get(); }
    const Ui::InstallerWindow &outlets() const { return m_ui; }
    QMessageBox *systemVersionAlert() const { return m_systemVersionAlert; }

    // Unattended mode ("-unattended YES", a user default): the same set-up
    // and run, the window never shown. The outcome's text goes to standard
    // error as it was at the start (before the log took it over), and the
    // program ends with the outcome's exit status.
    static bool isUnattendedRequested();
    void runUnattended();

    // Command line and product description.
    bool isLaunchedWithArguments() const;
    static bool isLaunchedWithArguments(const QStringList &argv);
    void decideLogDestination();
    void extractArguments();
    void showSetupError(const QString &message);
    void playDoneSound();

    // Pages and buttons.
    void selectTab(int page);
    void install();
    void cancel();
    void openDocumentation();
    void showFinalMessage(const QString &key);

    // The install run: the worker thread's body, and the outcome on the main
    // thread (null: success; any string, the empty one included: failure).
    void installThread();
    Q_INVOKABLE void installationFinished(const QString &message);
    // The "Done" event: class 'SinS', ID 'Done', the installation's label.
    void installAppleEvents();
    void installationDone(const QString &directParameter);
    void systemVersionAlertDidEnd(QMessageBox *alert, int returnCode, void *contextInfo);

    // Destination choice and writability.
    QString applicationsDirectory() const;
    QString findPreferredDestinationFor(const QString &name) const;
    QString autoLaunchPathFor(const QString &name) const;
    QString pathToProcessToReplace() const;
    static bool signature(OSType signature, const QVariant &isInArray);
    bool isInUnsupportedFolder(const QString &path) const;
    // The system's own such places: removable media, temporary folders and
    // the volumes' trash folders (on Linux, in its half of the class).
    static bool isInUnsupportedSystemFolder(const QString &path);
    bool canWriteToPath(const QString &path) const;
    bool canWriteToFileOrDirectory(const QString &path) const;
    bool canWriteToFile(const QString &path) const;
    bool canWriteToDirectory(const QString &path) const;
    QString localizedPath(const QString &path) const;
    QString recursiveLocalizedPath(const QString &path) const;

    // Running copies: ask every process with a quit code (the installer
    // excepted) to quit; name the first that still runs.
    void quitProcesses();
    QString processToQuitStillRunning() const;

    // Putting the product in place. Null: installed and launched; empty: the
    // user cancelled the administrator dialog; else the key of a failure
    // message. Runs on the worker thread.
    QString installMyselfInDestination();
    bool authorizedInstall(const QString &source, const QString &to, const QString &wrap,
                           bool *canceled);
    // Announces, registers and opens the installed copy, with retries.
    void registerAndLaunch(const QString &destination);
    // The label of the current installation, "name version"; null before the
    // first run reaches the copy.
    static QString installationInProgress();
    // Whether the Option (Alt) key was held when the run started.
    void setOptionKeyDown(bool down) { m_optionKeyDown = down; }

    // Progress animation: a non-null flag starts it, null stops it. Main
    // thread only; the worker asks for it with a queued call.
    Q_INVOKABLE void animateProgress(const QString &flag);

signals:
    // Emitted just before the program is asked to end.
    void terminationRequested();

public:
    // Where both standard streams go when launched with arguments.
    static QString logFilePath();
    // Whether the window can be shown: a display server to talk to, or a
    // platform asked for by name that needs none (offscreen, as tests use).
    static bool hasDisplay();
    // The archive page offered on a system that is too old.
    static QString softwareArchiveURL();

private:
    bool completeSourcePath();
    bool completeProductName();
    void readSourceInfo();
    void completeVersions();
    void completeDestination();
    bool completeCodes();
    // The product icon: read on another thread, shown when the window shows.
    void readIcon();
    void showIcon();
    // What the set-up left for the window's first showing: the event handler,
    // the icon, and the install page's layout.
    void completeWindow();
    void showTexts();
    int loadReadMe();
    void showWindow();
    void showSystemVersionAlert();
    QString systemVersionText() const;
    QString productName() const;
    // The localized key used as a format with the product name, its lines
    // broken for display.
    QString finalText(const QString &key) const;
    // Starts the worker thread of one install run.
    void startInstallThread();
    // Why the command line cannot drive an unattended run; null when it can.
    QString unattendedArgumentError() const;
    // Unattended: the outcome's text to the saved standard error, then the
    // end of the program with the status (once the event loop runs).
    void finishUnattended(const QString &text, InstallerExitStatus status);
    static int keepStandardError();
    static void writeLineTo(int stream, const QString &text);
    // Ends the program, as the application's terminate: does.
    void terminate();

    QStringList m_argv;
    QString m_mainBundlePath;
    std::unique_ptr<InstallerWindow> m_window;
    Ui::InstallerWindow m_ui;
    // The window's texts as loaded: templates with "%@" for the product name.
    QString m_titleTemplate, m_introTemplate, m_explanationTemplate;
    QMessageBox *m_systemVersionAlert = nullptr;

    QVariantMap m_arguments;
    bool m_argumentsExtracted = false;
    // The source bundle, read once by the set-up, and its information dictionary.
    std::optional<KVBundle> m_source;
    QVariantMap m_sourceInfo;
    QString m_version;
    QString m_minSystemVersion;
    bool m_systemAcceptable = true;
    std::future<QImage> m_iconReading;
    std::future<void> m_eventsInstalling;
    bool m_finished = false;
    bool m_optionKeyDown = false;
    bool m_receivesDoneEvents = false;
    bool m_unattended = false;
    // Where the outcome goes in unattended mode (-1: nowhere yet).
    int m_outcomeStream = -1;
    // Why the last run failed, set by the worker before it reports.
    InstallerExitStatus m_failureStatus = InstallerExitStatus::CopyFailed;
};
