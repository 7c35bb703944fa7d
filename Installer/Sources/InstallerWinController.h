// The installer's one controller: it reads the command line, completes the
// description of the product, chooses where the product goes and whether that
// place is writable, and (with the window) drives the pages and the run.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include "KVCompatibility.h"

class InstallerWinController : public QObject {
    Q_OBJECT

public:
    // argv is the process's argument vector as started, element 0 its path;
    // mainBundlePath the installer's own bundle.
    InstallerWinController(const QStringList &argv, const QString &mainBundlePath,
                           QObject *parent = nullptr);

    // The set-up. Returns false when a setup error ended it.
    bool awakeFromNib();
    // The part of the set-up after the log decision: parse the command line
    // and complete the description. False after a setup error.
    bool setUpDescription();

    const QVariantMap &arguments() const { return m_arguments; }
    bool isFinished() const { return m_finished; }
    // Whether the running system is new enough for the product.
    bool isSystemAcceptable() const { return m_systemAcceptable; }
    // The version shown after the name and the minimum system version, with
    // the information dictionary's fallbacks (not stored in the arguments).
    QString productVersion() const { return m_version; }
    QString minimumSystemVersion() const { return m_minSystemVersion; }
    // The destination as the path field shows it.
    QString displayedDestination() const { return m_displayedDestination; }
    // The localized text of the last final message.
    QString finalMessage() const { return m_finalMessage; }

    // Command line and product description.
    bool isLaunchedWithArguments() const;
    void decideLogDestination();
    void extractArguments();
    void showSetupError(const QString &message);
    void showFinalMessage(const QString &key);
    void playDoneSound();

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

    // Where both standard streams go when launched with arguments.
    static QString logFilePath();

private:
    bool completeSourcePath();
    bool completeProductName();
    void readSourceInfo();
    void completeVersions();
    void completeDestination();
    bool completeCodes();

    QStringList m_argv;
    QString m_mainBundlePath;
    QVariantMap m_arguments;
    bool m_argumentsExtracted = false;
    QVariantMap m_sourceInfo;
    QString m_version;
    QString m_minSystemVersion;
    QString m_displayedDestination;
    QString m_finalMessage;
    bool m_systemAcceptable = true;
    bool m_finished = false;
};
