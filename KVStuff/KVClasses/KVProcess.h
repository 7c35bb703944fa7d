// The record of one running process: identity, names, bundle, signature,
// version and caller-attached values, plus lookups that hand out one shared
// record per process from a most-recently-used cache.
//
// Safe to use from any thread: one class-wide lock guards the cache and the
// lazily filled values (the installer quits processes from a worker thread).
#pragma once

#include <sys/types.h>

#include <QDateTime>
#include <QIcon>
#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <memory>
#include <optional>

#include "KVAccessibility.h"
#include "KVBundle.h"
#include "KVCompatibility.h"

class KVProcess;
// Records are shared; a null reference means "no such process".
using KVProcessRef = std::shared_ptr<KVProcess>;

extern const QString KVPlatformCocoa;
extern const QString KVPlatformCarbon;
extern const QString KVPlatformJava;
extern const QString KVProcessUINotification;
extern const QString KVProcessChangeNotification;

// Seconds since 1970 at which the process started; 0.0 on failure.
double proc_start_time(pid_t pid);
// User processor time of the process in seconds; 0.0 on failure.
double proc_cpu_time(pid_t pid);

class KVProcess : public std::enable_shared_from_this<KVProcess> {
public:
    // Lookups. Asking twice for the same process gives the identical record
    // while it stays in the cache.
    static KVProcessRef processWithSerialNumber(const ProcessSerialNumber &psn);
    static KVProcessRef processWithPID(pid_t pid);
    static KVProcessRef processWithSignature(OSType signature);
    static KVProcessRef processWithSignatureString(const QString &signature);
    static KVProcessRef processWithIdentifier(const QString &identifier);
    static KVProcessRef currentProcess();
    static KVProcessRef frontProcess();
    // The user's processes in the system's order, background ones included.
    static QList<KVProcessRef> allProcesses();

    // The cache, most recently used first.
    static qsizetype indexOfCachedProcessWithSerialNumber(const ProcessSerialNumber &psn);
    static KVProcessRef cachedProcessWithSerialNumber(const ProcessSerialNumber &psn);
    static void cleanupCache();
    // The sender of KVProcessChangeNotification: the class itself, not a record.
    static const void *classObject();
    static QList<KVProcessRef> cachedProcesses();
    // Puts this record at the front of the cache (no duplicate check) and
    // watches its process's end. Only a record owned by a KVProcessRef can be
    // cached.
    void addToCache();

    // Starts following, on the main thread, applications that start (their
    // windows appear), end (their windows go, or their process exits) and
    // come to the front. Each change is posted as KVProcessChangeNotification
    // ("change": "started", "ended" or "front") through the default
    // notification queue, and an end prunes the cache. Once per process;
    // every lookup calls it, and it waits for the application object.
    static void installNotifications();
    static void applicationStarted();
    // Prunes the cache, then counts.
    static void applicationEnded();
    // Launches and ends seen so far: two readings differ once the set of
    // running applications has changed.
    static int applicationLaunchEndCount();

    // Fetches nothing; lookups are the usual way to get a record.
    explicit KVProcess(const ProcessSerialNumber &psn);
    ~KVProcess();
    KVProcess(const KVProcess &) = delete;
    KVProcess &operator=(const KVProcess &) = delete;

    ProcessSerialNumber serialNumber() const { return m_psn; }
    // 0 once the process has ended.
    pid_t unixPID() const;
    bool isStillRunning() const;
    // Fetches name and signature once; false when the process is gone.
    bool getProcessInfo() const;
    QString name() const;
    OSType signature() const;
    QString signatureString() const;
    QString signatureHexString() const;
    QVariantMap infoDictionary() const;
    QString identifier() const;
    // The bundle, or for a process outside any bundle its executable.
    QString path() const;
    std::optional<KVBundle> bundle() const;
    QString displayName() const;
    QString appName() const;
    QIcon icon() const;
    bool isFrontProcess() const;
    bool isBackgroundOnly() const;
    bool isCocoa() const;
    QString platform() const;

    QString version() const;
    QString carbonVersion() const;
    int majorVersionNumber() const;
    bool isAtLeastVersion(const QString &version) const;
    // Decodes the first four bytes of an old-style 'vers' resource; a null
    // string when there are fewer.
    static QString versionFromVersResource(const QByteArray &resource);

    QString hashStringSource() const;
    QString hashString() const;

    bool isSameProcess(const ProcessSerialNumber &psn) const;
    bool isEqual(const KVProcess *other) const;
    bool isEqual(const KVProcessRef &other) const { return isEqual(other.get()); }
    uint32_t hash() const;
    // Case-insensitive order of the names, for sorting lists.
    NSComparisonResult compare(const KVProcess &other) const;

    // Timing and diagnostics.
    QDateTime launchDate() const;
    float secondsRunning() const;
    double cpuTime() const;
    QString description() const;
    QString detailedDescription() const;
    static QString processListForDiagnosticsReport();

    // Quitting. quit() blocks for up to about eight seconds: call it from a
    // thread that may wait.
    void quit();
    bool quitRunningApplicationWithTimeout(float timeout);
    void forceQuit();

    // Windows and events.
    void wakeUp();
    void setHidden(bool hidden);
    void setFrontProcess();
    void setFrontProcessFrontWindowOnly();
    void temporarilySwitchOut();
    void sendAppleEventClass(OSType eventClass, OSType eventID);
    void sendAppleEventClass(OSType eventClass, OSType eventID, float timeout);
    void sendAppleEventClass(OSType eventClass, OSType eventID, const QString &parameter);

    // Accessibility notifications of the process's user interface, posted as
    // KVProcessUINotification with this record as sender, "element" (a
    // KVAccessibilityElement, or "" when there is none) and "event" (the
    // name). Main thread only; failures are logged and otherwise ignored.
    void installAXObserver();
    void addAXNotification(const QString &notification);
    void removeAXNotification(const QString &notification);
    void unregisterAXNotifications();

    // Values callers attach to the record; a null value removes the key.
    void setInfo(const QVariant &value, const QString &forKey);
    QVariant infoForKey(const QString &key) const;
    void setInfo(const QVariant &value);
    QVariant info() const;

private:
    const ProcessSerialNumber m_psn;
    // Filled lazily and never refreshed.
    mutable QVariantMap m_infoDictionary;
    mutable OSType m_signature = 0;
    mutable QString m_name;
    mutable bool m_hasProcessInfo = false;
    mutable QString m_displayName;
    mutable QString m_appName;
    mutable QString m_path;
    mutable QString m_version;
    mutable std::optional<QIcon> m_icon;
    mutable QDateTime m_launchDate;
    mutable int m_cocoaStatus = 0;  // 0 unknown, 1 Cocoa, 2 not Cocoa
    QVariantMap m_customInfo;
    // Set once the first observer was asked for, even when no observer
    // could be made then: there is no second try.
    KVAccessibilityElement m_axAppElem;
    std::unique_ptr<KVAccessibility::Observer> m_axObserver;
};
