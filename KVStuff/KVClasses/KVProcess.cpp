#include "KVProcess.h"

#include <QElapsedTimer>
#include <QStringList>
#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "KVAppleEvent.h"
#include "KVFileManager.h"
#include "KVFormat.h"
#include "KVFourCharCode.h"
#include "KVLog.h"
#include "KVNotificationQueue.h"
#include "KVPath.h"
#include "KVProcessWatcher_p.h"
#include "KVProcess_p.h"
#include "KVUserDefaults.h"
#include "KVWindowServer.h"
#include "KVWorkspace.h"
#include "StringExtensions.h"

namespace OS = KVProcessPrivate;

namespace {
constexpr OSType kCoreEventClass = 0x61657674;     // 'aevt'
constexpr OSType kAEQuitApplication = 0x71756974;  // 'quit'

// An event for the process the serial number names, never for a later one
// that has its pid: one that has ended answers "no such process".
int sendToProcess(const ProcessSerialNumber &psn, OSType eventClass, OSType eventID,
                  const QString &directParameter, int timeoutMilliseconds) {
    const pid_t pid = OS::pidForSerialNumber(psn);
    if (pid == 0) return KVAppleEvent::procNotFound;
    return KVAppleEvent::send(
        pid, [psn, pid] { return OS::pidForSerialNumber(psn) == pid; }, eventClass, eventID,
        directParameter, timeoutMilliseconds);
}

// Seconds to whole ticks of 1/60 s (truncated, like the original), then to
// milliseconds, at least one; a wait longer than the bus can count is
// as good as endless.
int eventTimeoutMilliseconds(float seconds) {
    const double milliseconds = std::trunc(double(seconds) * 60.0) * 1000.0 / 60.0;
    if (!(milliseconds >= 1.0)) return 1;
    return milliseconds >= double(INT_MAX) ? INT_MAX : int(milliseconds);
}
}  // namespace

const QString KVPlatformCocoa = QStringLiteral("Cocoa");
const QString KVPlatformCarbon = QStringLiteral("Carbon");
const QString KVPlatformJava = QStringLiteral("Java");
const QString KVProcessUINotification = QStringLiteral("KVProcessUINotification");
const QString KVProcessChangeNotification = QStringLiteral("KVProcessChangeNotification");

namespace {

// The installer's worker thread lists and quits processes while the main
// thread may look them up: one lock guards the cache, the statics and every
// lazily filled value of a record. Recursive, since lookups nest.
std::recursive_mutex &classLock() {
    static std::recursive_mutex lock;
    return lock;
}
using Guard = std::lock_guard<std::recursive_mutex>;

// Never destroyed: records hold icons, which must not outlive the
// application object that static destruction runs after.
QList<KVProcessRef> &cache() {
    static auto *list = new QList<KVProcessRef>;
    return *list;
}

std::atomic<int> s_appLaunchEndCount{0};
std::atomic<bool> s_notificationsInstalled{false};

KVProcessRef &currentProcessRecord() {
    static auto *record = new KVProcessRef;
    return *record;
}

bool isString(const QVariant &value) { return value.typeId() == QMetaType::QString; }

// Info.plist booleans come as <true/>, as numbers or as texts like "YES".
bool isTrue(const QVariant &value) {
    switch (value.typeId()) {
        case QMetaType::Bool:
            return value.toBool();
        case QMetaType::QString:
            return KVUserDefaults::boolValue(value.toString());
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
            return value.toDouble() != 0.0;
        default:
            return false;
    }
}

}  // namespace

// ---- Lookups ----

KVProcessRef KVProcess::processWithSerialNumber(const ProcessSerialNumber &psn) {
    const Guard guard(classLock());
    if (KVProcessRef cached = cachedProcessWithSerialNumber(psn)) return cached;
    auto process = std::make_shared<KVProcess>(psn);
    process->addToCache();
    return process;
}

KVProcessRef KVProcess::processWithPID(pid_t pid) {
    installNotifications();
    const auto psn = OS::serialNumberForPID(pid);
    return psn ? processWithSerialNumber(*psn) : nullptr;
}

KVProcessRef KVProcess::processWithSignature(OSType signature) {
    installNotifications();
    for (const ProcessSerialNumber &psn : OS::processList()) {
        const auto information = OS::processInformation(psn);
        if (information && information->signature == signature) return processWithSerialNumber(psn);
    }
    return nullptr;
}

KVProcessRef KVProcess::processWithSignatureString(const QString &signature) {
    return processWithSignature(KVFourCharCode::fromString(signature));
}

KVProcessRef KVProcess::processWithIdentifier(const QString &identifier) {
    if (identifier.isNull()) return nullptr;
    for (const KVProcessRef &process : allProcesses()) {
        if (process->identifier() == identifier) return process;
    }
    return nullptr;
}

KVProcessRef KVProcess::currentProcess() {
    const Guard guard(classLock());
    KVProcessRef &current = currentProcessRecord();
    if (current) return current;
    installNotifications();
    // On failure the static stays empty so that the next call tries again.
    if (const auto psn = OS::currentSerialNumber()) current = processWithSerialNumber(*psn);
    return current;
}

KVProcessRef KVProcess::frontProcess() {
    installNotifications();
    const auto psn = OS::frontSerialNumber();
    return psn ? processWithSerialNumber(*psn) : nullptr;
}

QList<KVProcessRef> KVProcess::allProcesses() {
    installNotifications();
    QList<KVProcessRef> processes;
    for (const ProcessSerialNumber &psn : OS::processList())
        processes.append(processWithSerialNumber(psn));
    return processes;
}

// ---- Cache ----

qsizetype KVProcess::indexOfCachedProcessWithSerialNumber(const ProcessSerialNumber &psn) {
    const Guard guard(classLock());
    const QList<KVProcessRef> &list = cache();
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (list.at(i)->isSameProcess(psn)) return i;
    }
    return NSNotFound;
}

KVProcessRef KVProcess::cachedProcessWithSerialNumber(const ProcessSerialNumber &psn) {
    const Guard guard(classLock());
    const qsizetype index = indexOfCachedProcessWithSerialNumber(psn);
    if (index == NSNotFound) return nullptr;
    QList<KVProcessRef> &list = cache();
    if (index > 0) {
        list.insert(0, list.at(index));
        list.removeAt(index + 1);
    }
    return list.first();
}

void KVProcess::addToCache() {
    const Guard guard(classLock());
    KVProcessRef self = weak_from_this().lock();
    if (!self) return;
    cache().insert(0, self);
    // Before the notifications are installed, installing watches the cache.
    if (s_notificationsInstalled) KVProcessWatcher::watchEnd(m_psn);
}

void KVProcess::cleanupCache() {
    const Guard guard(classLock());
    QList<KVProcessRef> &list = cache();
    for (qsizetype i = 0; i < list.size();) {
        if (list.at(i)->isStillRunning())
            ++i;
        else
            list.removeAt(i);
    }
}

QList<KVProcessRef> KVProcess::cachedProcesses() {
    const Guard guard(classLock());
    return cache();
}

const void *KVProcess::classObject() {
    static const char tag = 0;
    return &tag;
}

// ---- Notifications ----

namespace {

// On the main thread, inside the watcher's own handling: observers hear of
// the change a turn later, through the queue.
void applicationStartEndHandler(KVProcessWatcher::Change change) {
    QString kind;
    switch (change) {
        case KVProcessWatcher::Change::Started:
            KVProcess::applicationStarted();
            kind = QStringLiteral("started");
            break;
        case KVProcessWatcher::Change::Ended:
            KVProcess::applicationEnded();
            kind = QStringLiteral("ended");
            break;
        case KVProcessWatcher::Change::Front:
            kind = QStringLiteral("front");
            break;
        case KVProcessWatcher::Change::Exited:
            KVProcess::cleanupCache();
            return;
    }
    KVNotificationQueue::defaultQueue().enqueueNotification({KVProcessChangeNotification,
                                                             KVProcess::classObject(),
                                                             {{QStringLiteral("change"), kind}}});
}

}  // namespace

void KVProcess::installNotifications() {
    if (s_notificationsInstalled) return;
    const Guard guard(classLock());
    // Without an application object there is no event loop to watch from
    // yet: a later lookup tries again.
    if (s_notificationsInstalled || !KVProcessWatcher::install(applicationStartEndHandler)) return;
    s_notificationsInstalled = true;
    for (const KVProcessRef &record : cache()) KVProcessWatcher::watchEnd(record->serialNumber());
}

void KVProcess::applicationStarted() { ++s_appLaunchEndCount; }

void KVProcess::applicationEnded() {
    cleanupCache();
    ++s_appLaunchEndCount;
}

int KVProcess::applicationLaunchEndCount() { return s_appLaunchEndCount; }

// ---- Record ----

KVProcess::KVProcess(const ProcessSerialNumber &psn) : m_psn(psn) { installNotifications(); }

KVProcess::~KVProcess() { unregisterAXNotifications(); }

pid_t KVProcess::unixPID() const { return OS::pidForSerialNumber(m_psn); }

bool KVProcess::isStillRunning() const { return OS::pidForSerialNumber(m_psn) != 0; }

bool KVProcess::getProcessInfo() const {
    const Guard guard(classLock());
    if (m_hasProcessInfo) return true;
    const auto information = OS::processInformation(m_psn);
    if (!information) return false;
    m_signature = information->signature;
    m_name = information->name;
    m_hasProcessInfo = true;
    return true;
}

QString KVProcess::name() const { return getProcessInfo() ? m_name : QString(); }

OSType KVProcess::signature() const { return getProcessInfo() ? m_signature : 0; }

QString KVProcess::signatureString() const {
    if (!getProcessInfo()) return QStringLiteral("");
    return KVFourCharCode::toString(m_signature);
}

QString KVProcess::signatureHexString() const {
    // Each byte travels as a sign-extended char, so bytes from 0x80 up print
    // as FFFFFFxx; readers of these strings expect exactly that.
    const OSType code = signature();
    const auto byte = [code](int shift) { return int(static_cast<signed char>(code >> shift)); };
    return kvFormat("%02X%02X%02X%02X", byte(24), byte(16), byte(8), byte(0));
}

QVariantMap KVProcess::infoDictionary() const {
    const Guard guard(classLock());
    if (m_infoDictionary.isEmpty()) m_infoDictionary = OS::informationDictionary(m_psn);
    return m_infoDictionary;
}

QString KVProcess::identifier() const {
    const QVariant value = infoDictionary().value(QStringLiteral("CFBundleIdentifier"));
    return isString(value) ? value.toString() : QStringLiteral("");
}

QString KVProcess::path() const {
    const Guard guard(classLock());
    if (m_path.isNull()) m_path = OS::bundleLocation(m_psn);
    return m_path;
}

std::optional<KVBundle> KVProcess::bundle() const {
    const QString location = path();
    if (location.isNull()) return std::nullopt;
    return KVBundle::bundleWithPath(location);
}

QString KVProcess::displayName() const {
    const Guard guard(classLock());
    if (m_displayName.isNull()) {
        m_displayName = OS::displayName(m_psn);
        if (m_displayName.isNull()) m_displayName = name();
    }
    return m_displayName;
}

QString KVProcess::appName() const {
    const Guard guard(classLock());
    if (m_appName.isNull()) {
        const QString location = path();
        if (!location.isNull()) m_appName = KVPath::lastPathComponent(location);
        // A helper that hosts other programs is known by its bundle's name.
        if (m_appName == QStringLiteral("WinAppHelper")) {
            const auto helperBundle = bundle();
            m_appName = helperBundle ? KVFileManager::displayNameAtPath(helperBundle->bundlePath())
                                     : QString();
        }
        if (m_appName.isNull()) m_appName = displayName();
    }
    return m_appName;
}

QIcon KVProcess::icon() const {
    const Guard guard(classLock());
    if (!m_icon) m_icon = KVWorkspace::iconForFile(path());
    return *m_icon;
}

bool KVProcess::isFrontProcess() const { return isEqual(frontProcess()); }

bool KVProcess::isBackgroundOnly() const {
    const QVariantMap info = infoDictionary();
    return isTrue(info.value(QStringLiteral("LSBackgroundOnly"))) ||
           isTrue(info.value(QStringLiteral("LSUIElement")));
}

bool KVProcess::isCocoa() const {
    const Guard guard(classLock());
    if (m_cocoaStatus != 0) return m_cocoaStatus == 1;
    m_cocoaStatus = 2;
    const QString location = path();
    if (!location.isNull() && OS::isApplicationPackage(location)) {
        if (const auto package = KVBundle::bundleWithPath(location)) {
            const QVariant principal =
                package->objectForInfoDictionaryKey(QStringLiteral("NSPrincipalClass"));
            if (isString(principal)) m_cocoaStatus = 1;
        }
    }
    return m_cocoaStatus == 1;
}

QString KVProcess::platform() const {
    if (isCocoa()) return KVPlatformCocoa;
    if (identifier().contains(QStringLiteral(".java"))) return KVPlatformJava;
    return KVPlatformCarbon;
}

// ---- Versions ----

QString KVProcess::version() const {
    const Guard guard(classLock());
    if (!m_version.isNull()) return m_version;
    m_version = QStringLiteral("1.0");
    if (!getProcessInfo() || path().isNull()) return m_version;
    if (const auto processBundle = bundle()) {
        const QVariantMap info = processBundle->infoDictionary();
        const QVariant shortVersion = info.value(QStringLiteral("CFBundleShortVersionString"));
        const QVariant bundleVersion = info.value(QStringLiteral("CFBundleVersion"));
        // A short version without a dot is usually a build number.
        if (isString(shortVersion) && shortVersion.toString().contains(QLatin1Char('.')))
            m_version = shortVersion.toString();
        else if (isString(bundleVersion))
            m_version = bundleVersion.toString();
    } else if (const QString carbon = carbonVersion(); !carbon.isNull()) {
        m_version = carbon;
    }
    return m_version;
}

QString KVProcess::carbonVersion() const {
    const QString location = path();
    if (location.isNull()) return QString();
    return versionFromVersResource(OS::versionResource(location));
}

QString KVProcess::versionFromVersResource(const QByteArray &resource) {
    if (resource.size() < 4) return QString();
    // The bytes are read from the far end: byte 3 is the major number.
    const auto byte = [&resource](int i) { return int(uint8_t(resource.at(i))); };
    const int major = (byte(3) >> 4) * 10 + (byte(3) & 0x0F);
    const int minor = byte(2) >> 4;
    const int bug = byte(2) & 0x0F;
    const uint32_t stage = uint32_t(byte(1));
    const int revision = byte(0);

    QString result =
        bug != 0 ? kvFormat("%d.%d.%d", major, minor, bug) : kvFormat("%d.%d", major, minor);
    if (revision != 0) {
        // Development 0x20, alpha 0x40 and beta 0x60 map to 0, 1 and 2; every
        // other stage (final 0x80 included) rotates to 3 or more: no letter.
        const uint32_t offset = stage - 0x20;
        const uint32_t index = (offset >> 5) | (offset << 27);
        static const char *const kStageLetters[] = {"d", "a", "b"};
        const QString letter = index < 3 ? QString::fromLatin1(kStageLetters[index]) : QString("");
        result = kvFormat("%@%@%d", result, letter, revision);
    }
    return result;
}

int KVProcess::majorVersionNumber() const { return int(KVUserDefaults::integerValue(version())); }

bool KVProcess::isAtLeastVersion(const QString &wanted) const {
    const QStringList own = version().split(QLatin1Char('.'));
    const QStringList other = wanted.split(QLatin1Char('.'));
    const auto component = [](const QStringList &parts, qsizetype i) {
        return i < parts.size() ? KVUserDefaults::integerValue(parts.at(i)) : 0;
    };
    for (qsizetype i = 0; i < std::max(own.size(), other.size()); ++i) {
        const qint64 mine = component(own, i);
        const qint64 theirs = component(other, i);
        if (mine != theirs) return mine > theirs;
    }
    return true;
}

// ---- Hash strings ----

QString KVProcess::hashStringSource() const {
    const QString bundleIdentifier = identifier();
    if (!bundleIdentifier.isEmpty()) return QStringLiteral("id:") + bundleIdentifier;
    const QString code = signatureString();
    if (!code.isEmpty() && code != QStringLiteral("????")) return QStringLiteral("sig:") + code;
    return QStringLiteral("name:") + name();
}

// The library's one MD5 digest of a text.
QString KVProcess::hashString() const { return StringExtensions::MD5String(hashStringSource()); }

// ---- Identity ----

bool KVProcess::isSameProcess(const ProcessSerialNumber &psn) const { return m_psn == psn; }

bool KVProcess::isEqual(const KVProcess *other) const {
    if (other == this) return true;
    return other != nullptr && isSameProcess(other->serialNumber());
}

uint32_t KVProcess::hash() const { return m_psn.highLongOfPSN + m_psn.lowLongOfPSN; }

NSComparisonResult KVProcess::compare(const KVProcess &other) const {
    const int order = QString::compare(name(), other.name(), Qt::CaseInsensitive);
    return order < 0 ? NSOrderedAscending : order > 0 ? NSOrderedDescending : NSOrderedSame;
}

// ---- Timing and diagnostics ----

QDateTime KVProcess::launchDate() const {
    const Guard guard(classLock());
    if (m_launchDate.isValid()) return m_launchDate;
    const pid_t pid = unixPID();
    if (pid != 0) {
        m_launchDate = QDateTime::fromMSecsSinceEpoch(qint64(proc_start_time(pid) * 1000.0));
    } else {
        kvLog("*** Cannot get launch date for %@", name());
        m_launchDate = QDateTime::currentDateTime();
    }
    return m_launchDate;
}

float KVProcess::secondsRunning() const {
    return float(double(launchDate().msecsTo(QDateTime::currentDateTime())) / 1000.0);
}

double KVProcess::cpuTime() const {
    const pid_t pid = unixPID();
    return pid == 0 ? 0.0 : proc_cpu_time(pid);
}

QString KVProcess::description() const {
    return kvFormat("Process \"%@\" (%@) %@", name(), signatureString(), version());
}

QString KVProcess::detailedDescription() const {
    return kvFormat("%@ V%@ (%@/%@)", name(), version(), signatureString(), identifier());
}

QString KVProcess::processListForDiagnosticsReport() {
    QStringList foreground, background;
    foreground.reserve(100);
    background.reserve(100);
    for (const KVProcessRef &process : allProcesses())
        (process->isBackgroundOnly() ? background : foreground) << process->detailedDescription();
    for (QStringList *list : {&foreground, &background}) {
        std::sort(list->begin(), list->end(), [](const QString &a, const QString &b) {
            return QString::compare(a, b, Qt::CaseInsensitive) < 0;
        });
        if (list->isEmpty()) *list << QStringLiteral("none");
    }
    return kvFormat("Foreground processes:\n%@\n\nBackground processes:\n%@\n",
                    foreground.join(QLatin1Char('\n')), background.join(QLatin1Char('\n')));
}

// ---- Quitting ----

bool KVProcess::quitRunningApplicationWithTimeout(float timeout) {
    const QString processName = name();
    const pid_t pid = unixPID();
    if (pid == 0) {
        kvLog("cannot quit %@: no pid", processName);
        return false;
    }
    OS::QuitHandle handle(m_psn, pid);
    if (!handle.isValid()) {
        kvLog("cannot quit %@: no process found", processName);
        return false;
    }
    // One phase: send the request every millisecond until the process is gone
    // or the time-out has passed. A request that cannot be delivered means
    // the process is gone already; that line counts the failed attempt too.
    const auto phase = [&](bool (OS::QuitHandle::*send)(), const char *stoppedLine,
                           const char *terminatedLine) {
        QElapsedTimer clock;
        clock.start();
        const auto elapsed = [&clock] { return double(clock.nsecsElapsed()) / 1e9; };
        for (int attempts = 0;;) {
            if (!(elapsed() < double(timeout))) return false;
            if (!(handle.*send)()) {
                kvLog(QLatin1String(stoppedLine), processName, elapsed(), attempts + 1);
                return true;
            }
            const bool exited = handle.waitForExit(1);
            ++attempts;
            if (exited) {
                kvLog(QLatin1String(terminatedLine), processName, elapsed(), attempts);
                return true;
            }
        }
    };
    if (phase(&OS::QuitHandle::terminate, "quit %@: process stopped after %1.3fs (%d attempts)",
              "quit %@: terminated after %1.3fs (%d attempts)"))
        return true;
    if (phase(&OS::QuitHandle::forceTerminate,
              "foce-quit %@: process stopped after %1.3fs (%d attempts)",
              "force-quit %@: terminated after %1.3fs (%d attempts)"))
        return true;
    kvLog("quitting %@ failed", processName);
    return false;
}

void KVProcess::quit() {
    if (quitRunningApplicationWithTimeout(4.0f)) return;
    // The fallback goes to the process the serial number names, which may
    // have ended: the send then fails with a logged code.
    if (pid_t(m_psn.lowLongOfPSN) <= 0) {
        kvLog("quitting %@ failed (%d; could not create descriptor)", name(),
              KVAppleEvent::paramErr);
        return;
    }
    const int error = sendToProcess(m_psn, kCoreEventClass, kAEQuitApplication, QString(), 0);
    if (error != KVAppleEvent::noErr)
        kvLog("quitting %@ failed (%d; could not send event)", name(), error);
}

void KVProcess::forceQuit() {
    const pid_t pid = unixPID();
    if (pid == 0) return;
    char command[100];
    std::snprintf(command, sizeof command, "kill -9 %d", int(pid));
    // The command's own result tells nothing the caller could act on.
    const int status = std::system(command);
    (void)status;
}

// ---- Windows and events ----

void KVProcess::wakeUp() { OS::wakeUp(unixPID()); }

void KVProcess::setHidden(bool hidden) { KVWindowServer::setProcessHidden(unixPID(), hidden); }

void KVProcess::setFrontProcess() { KVWindowServer::bringProcessToFront(unixPID(), false); }

void KVProcess::setFrontProcessFrontWindowOnly() {
    KVWindowServer::bringProcessToFront(unixPID(), true);
}

void KVProcess::temporarilySwitchOut() {
    if (const KVProcessRef current = currentProcess()) current->setFrontProcess();
    setFrontProcessFrontWindowOnly();
    wakeUp();
}

void KVProcess::sendAppleEventClass(OSType eventClass, OSType eventID) {
    const int error = sendToProcess(m_psn, eventClass, eventID, QString(), 0);
    if (error != KVAppleEvent::noErr) kvLog("*** event error: %d", error);
}

void KVProcess::sendAppleEventClass(OSType eventClass, OSType eventID, float timeout) {
    const auto sampleFrontCPU = [] {
        if (const KVProcessRef front = frontProcess()) (void)front->cpuTime();
    };
    sampleFrontCPU();
    QElapsedTimer sent;
    sent.start();
    const int error =
        sendToProcess(m_psn, eventClass, eventID, QString(), eventTimeoutMilliseconds(timeout));
    if (error != KVAppleEvent::noErr) kvLog("*** event error: %d", error);
    (void)sent.elapsed();
    sampleFrontCPU();
}

void KVProcess::sendAppleEventClass(OSType eventClass, OSType eventID, const QString &parameter) {
    // Sent without waiting; errors are not reported.
    (void)sendToProcess(m_psn, eventClass, eventID, parameter, 0);
}

// ---- Accessibility notifications ----

namespace {
// Runs on the main thread, from the observer's callback; the notification
// reaches observers on a later turn of the event loop.
void notificationHandler(const KVAccessibilityElement &element, const QString &notification,
                         const void *record) {
    const QVariant elementValue =
        element.isNull() ? QVariant(QStringLiteral("")) : QVariant::fromValue(element);
    KVNotificationQueue::defaultQueue().enqueueNotification(
        {KVProcessUINotification,
         record,
         {{QStringLiteral("element"), elementValue}, {QStringLiteral("event"), notification}}});
}
}  // namespace

void KVProcess::installAXObserver() {
    if (!m_axAppElem.isNull()) return;
    m_axAppElem = KVAccessibility::applicationElement(unixPID());
    if (m_axAppElem.isNull()) {
        kvLog("AX Notifications: Could not create application object for %@", description());
        return;
    }
    const void *record = this;
    m_axObserver = KVAccessibility::Observer::create(
        m_axAppElem, [record](const KVAccessibilityElement &element, const QString &notification) {
            notificationHandler(element, notification, record);
        });
    if (!m_axObserver) kvLog("AX Notifications: Could not create observer for %@", description());
}

void KVProcess::addAXNotification(const QString &notification) {
    installAXObserver();
    // What failed has been logged.
    if (!m_axObserver) return;
    if (!m_axObserver->addNotification(notification))
        kvLog("AX Notifications: Could not add notification %@ for %@", notification,
              description());
}

void KVProcess::removeAXNotification(const QString &notification) {
    if (m_axObserver) m_axObserver->removeNotification(notification);
}

void KVProcess::unregisterAXNotifications() {
    // The last owner of a record may be any thread; the observer and the
    // element are let go on the main thread.
    KVAccessibility::Observer::releaseOnMainThread(std::move(m_axObserver));
    m_axAppElem = KVAccessibilityElement();
}

// ---- Custom information ----

void KVProcess::setInfo(const QVariant &value, const QString &forKey) {
    const Guard guard(classLock());
    if (value.isNull())
        m_customInfo.remove(forKey);
    else
        m_customInfo.insert(forKey, value);
}

QVariant KVProcess::infoForKey(const QString &key) const {
    const Guard guard(classLock());
    return m_customInfo.value(key);
}

void KVProcess::setInfo(const QVariant &value) { setInfo(value, QStringLiteral("")); }

QVariant KVProcess::info() const { return infoForKey(QStringLiteral("")); }
