// The unattended half of InstallerWinController: a scripted run of the same
// road, without showing the window, that reports on standard error and
// through its exit status.
#include <QCoreApplication>

#include "InstallerWinController.h"
#include "KVFileManager.h"
#include "KVInstallerInterface.h"
#include "KVLocalization.h"
#include "KVLog.h"
#include "KVUserDefaults.h"

namespace {
// Beside the keys of the product description, the user defaults the program
// reads may come from the command line.
bool isKnownKey(const QString &key) {
    static const QStringList known{
        KVInstallerKeyProductName,      KVInstallerKeyVersion,
        KVInstallerKeyMinSystemVersion, KVInstallerKeySourcePath,
        KVInstallerKeyDestinationPath,  KVInstallerKeyDocumentationPath,
        KVInstallerKeyReadMePath,       KVInstallerKeyProductCode,
        KVInstallerKeyQuitCode,         KVInstallerKeyIconPath,
        KVInstallerKeyWrapperPath,      KVInstallerCompletionSound,
        KVInstallerCompletionQuit,      QStringLiteral("unattended"),
        QStringLiteral("nosound"),      QStringLiteral("soundLog"),
        QStringLiteral("httpsMinSys"),  QStringLiteral("AppleLanguages")};
    return known.contains(key);
}

QString localized(const char *key) { return KVLocalization::localizedString(key); }
}  // namespace

bool InstallerWinController::isUnattendedRequested() {
    return KVUserDefaults::standardUserDefaults().boolForKey(QStringLiteral("unattended"));
}

QString InstallerWinController::unattendedArgumentError() const {
    // A window shows what it will do before anyone clicks; a script gets no
    // such look, so a word the installer would pass over (a mistyped key, a
    // name with a space left unquoted) stops the run instead.
    QString key;
    bool hasValue = true;
    for (qsizetype i = 1; i < m_argv.size(); ++i) {
        const QString &word = m_argv[i];
        if (word.startsWith(QLatin1Char('-'))) {
            if (!hasValue) return kvFormat(localized("missing value for -%@"), key);
            key = word.mid(1);
            if (!isKnownKey(key)) return kvFormat(localized("unknown key %@"), word);
            hasValue = false;
        } else if (key.isNull()) {
            return kvFormat(localized("%@ follows no key"), word);
        } else if (hasValue && !key.endsWith(QLatin1String("Code"))) {
            return kvFormat(localized("more than one value for -%@"), key);
        } else {
            hasValue = true;
        }
    }
    if (!hasValue) return kvFormat(localized("missing value for -%@"), key);
    return QString();
}

void InstallerWinController::runUnattended() {
    m_unattended = true;
    m_outcomeStream = keepStandardError();
    installAppleEvents();
    decideLogDestination();
    extractArguments();
    const QString error = unattendedArgumentError();
    if (!error.isNull()) {
        kvLog("%@", error);
        finishUnattended(error, InstallerExitStatus::BadArguments);
        return;
    }
    // A setup error has ended the run already.
    if (!setUp()) return;
    const QString source = m_arguments.value(KVInstallerKeySourcePath).toString();
    if (!KVFileManager::fileExistsAtPath(source)) {
        const QString missing = kvFormat(localized("nothing to install at %@"), source);
        kvLog("%@", missing);
        finishUnattended(missing, InstallerExitStatus::BadArguments);
        return;
    }
    if (!m_systemAcceptable) {
        const QString tooOld = systemVersionText();
        kvLog("%@", tooOld);
        finishUnattended(tooOld, InstallerExitStatus::SystemTooOld);
        return;
    }
    startInstallThread();
}

void InstallerWinController::finishUnattended(const QString &text, InstallerExitStatus status) {
    // A dismissed administrator request has no words, as in the window.
    if (!text.isEmpty()) writeLineTo(m_outcomeStream, text);
    kvLog("unattended run ends with status %d", int(status));
    emit terminationRequested();
    // Queued: the set-up finishes before the event loop runs, and an exit
    // asked for then would be lost.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [status] { QCoreApplication::exit(int(status)); },
        Qt::QueuedConnection);
}
