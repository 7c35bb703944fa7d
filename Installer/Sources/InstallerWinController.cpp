#include "InstallerWinController.h"

#include <cstdio>

#include "KVBundle.h"
#include "KVFileManager.h"
#include "KVInstallerInterface.h"
#include "KVLocalization.h"
#include "KVLog.h"
#include "KVPath.h"
#include "KVUtilities.h"

using namespace KVPath;

InstallerWinController::InstallerWinController(const QStringList &argv,
                                               const QString &mainBundlePath, QObject *parent)
    : QObject(parent), m_argv(argv), m_mainBundlePath(mainBundlePath) {}

// ---------------------------------------------------------------------------
// Set-up

bool InstallerWinController::awakeFromNib() {
    decideLogDestination();
    return setUpDescription();
}

bool InstallerWinController::setUpDescription() {
    extractArguments();
    if (!completeSourcePath() || !completeProductName()) return false;
    readSourceInfo();
    completeVersions();
    completeDestination();
    m_displayedDestination =
        localizedPath(m_arguments.value(KVInstallerKeyDestinationPath).toString());
    const QString documentation = m_arguments.value(KVInstallerKeyDocumentationPath).toString();
    if (m_arguments.contains(KVInstallerKeyDocumentationPath) &&
        !KVFileManager::fileExistsAtPath(documentation))
        m_arguments.remove(KVInstallerKeyDocumentationPath);
    if (!completeCodes()) return false;
    kvLog("Updated arguments: %@", m_arguments);
    return true;
}

// ---------------------------------------------------------------------------
// Command line and log

bool InstallerWinController::isLaunchedWithArguments() const {
    return m_argv.size() >= 3 && m_argv[1] != QLatin1String("-AppleLanguages");
}

void InstallerWinController::decideLogDestination() {
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
    const auto bundle =
        KVBundle::bundleWithPath(m_arguments.value(KVInstallerKeySourcePath).toString());
    m_sourceInfo = bundle ? bundle->infoDictionary() : QVariantMap();
}

void InstallerWinController::completeVersions() {
    const auto given = [this](const QString &key, const char *infoKey) {
        if (m_arguments.contains(key)) return m_arguments.value(key).toString();
        const QVariant fallback = m_sourceInfo.value(QLatin1String(infoKey));
        return fallback.typeId() == QMetaType::QString ? fallback.toString() : QString();
    };
    m_version = given(KVInstallerKeyVersion, "CFBundleShortVersionString");
    m_minSystemVersion = given(KVInstallerKeyMinSystemVersion, "LSMinimumSystemVersion");
    m_systemAcceptable =
        m_minSystemVersion.isNull() ||
        KVUtilities::compareVersion(KVUtilities::systemVersionString(), m_minSystemVersion) !=
            NSOrderedAscending;
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
    showFinalMessage(message);
}

void InstallerWinController::showFinalMessage(const QString &key) {
    m_finalMessage = kvFormat(KVLocalization::localizedString(key),
                              m_arguments.value(KVInstallerKeyProductName).toString());
    m_finished = true;
}

void InstallerWinController::playDoneSound() {
    if (m_arguments.value(KVInstallerCompletionSound).toString() != QLatin1String("YES")) return;
    // Playback on the sound-effect device joins with the sound unit.
}
