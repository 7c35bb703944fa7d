// The installer's one controller: it reads the command line, completes the
// description of the product, sets up the window and drives its two pages,
// chooses where the product goes and whether that place is writable, and
// asks running copies to quit.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>

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

    // Command line and product description.
    bool isLaunchedWithArguments() const;
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
    void systemVersionAlertDidEnd(QMessageBox *alert, int returnCode, void *contextInfo);

    // Destination choice and writability.
    QString applicationsDirectory() const;
    QString findPreferredDestinationFor(const QString &name) const;
    QString autoLaunchPathFor(const QString &name) const;
    QString pathToProcessToReplace() const;
    static bool signature(OSType signature, const QVariant &isInArray);
    bool isInUnsupportedFolder(const QString &path) const;
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

signals:
    // Emitted just before the program is asked to end.
    void terminationRequested();

public:
    // Where both standard streams go when launched with arguments.
    static QString logFilePath();
    // The archive page offered on a system that is too old.
    static QString softwareArchiveURL();

private:
    bool completeSourcePath();
    bool completeProductName();
    void readSourceInfo();
    void completeVersions();
    void completeDestination();
    bool completeCodes();
    void showIcon();
    void showTexts();
    int loadReadMe();
    void showWindow();
    void showSystemVersionAlert();
    QString productName() const;
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
    QVariantMap m_sourceInfo;
    QString m_version;
    QString m_minSystemVersion;
    bool m_systemAcceptable = true;
    bool m_finished = false;
};
