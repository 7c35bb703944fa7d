#include "KVUtilities.h"

#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <QCoreApplication>
#include <QJsonValue>
#include <QLocale>
#include <QMutex>
#include <QPainter>
#include <QTimer>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <thread>

#include "DateExtensions.h"
#include "KVBundle.h"
#include "KVDynamicColor.h"
#include "KVDynamicColor_p.h"
#include "KVFileManager.h"
#include "KVICU_p.h"
#include "KVLog.h"
#include "KVPath.h"
#include "KVProcess.h"
#include "KVPropertyList.h"
#include "KVUserDefaults.h"
#include "KVUtilities_p.h"
#include "KVWindowServer.h"

namespace {

// Remembered once non-zero; a zero (nothing known yet) is asked again.
std::atomic<int> s_decimalSystemVersion{0};

// The bundle type counted by appType, kept packed so that its name is no
// plain string in the binary: "kvapp".
constexpr uint32_t kPackedResourceType = 0x010806CB;

bool isAsciiDigit(QChar c) { return c >= u'0' && c <= u'9'; }

struct VersionParts {
    QStringView number;
    int stageRank;
    QStringView stageNumber;
};

// "2.5b3" -> "2.5", rank of 'b', "3". Without a letter: a release, stage "0".
VersionParts splitVersion(const QString &version) {
    static constexpr QStringView kStages = u"pdabf ";
    const QStringView text(version);
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (!text[i].isLetter()) continue;
        // Letters outside the table, upper case included, rank with "p".
        const qsizetype rank = kStages.indexOf(text[i]);
        return {text.left(i), int(rank < 0 ? 0 : rank), text.mid(i + 1)};
    }
    return {text, 5, u"0"};
}

}  // namespace

// ---- Shared helpers ----

NSComparisonResult KVUtilitiesPrivate::numericCompare(QStringView a, QStringView b,
                                                      Qt::CaseSensitivity cs) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isAsciiDigit(a[i]) && isAsciiDigit(b[j])) {
            // Compare the runs without converting them, so no length overflows:
            // leading zeros aside, the longer run is the larger number.
            while (i < a.size() && a[i] == u'0') ++i;
            while (j < b.size() && b[j] == u'0') ++j;
            const qsizetype startA = i, startB = j;
            while (i < a.size() && isAsciiDigit(a[i])) ++i;
            while (j < b.size() && isAsciiDigit(b[j])) ++j;
            const qsizetype lengthA = i - startA, lengthB = j - startB;
            if (lengthA != lengthB)
                return lengthA < lengthB ? NSOrderedAscending : NSOrderedDescending;
            const int order = a.mid(startA, lengthA).compare(b.mid(startB, lengthB));
            if (order != 0) return order < 0 ? NSOrderedAscending : NSOrderedDescending;
            continue;
        }
        char16_t x = a[i].unicode(), y = b[j].unicode();
        if (cs == Qt::CaseInsensitive) {
            x = QChar::toCaseFolded(x);
            y = QChar::toCaseFolded(y);
        }
        if (x != y) return x < y ? NSOrderedAscending : NSOrderedDescending;
        ++i;
        ++j;
    }
    if (i < a.size()) return NSOrderedDescending;
    if (j < b.size()) return NSOrderedAscending;
    return NSOrderedSame;
}

uint64_t KVUtilitiesPrivate::packVersion(uint32_t major, uint32_t minor, uint32_t bugFix) {
    return uint64_t(major & 0xFFFF) | uint64_t(minor & 0xFFFF) << 16 |
           uint64_t(bugFix & 0xFFFF) << 32;
}

uint32_t KVUtilitiesPrivate::majorOf(uint64_t packed) { return packed & 0xFFFF; }
uint32_t KVUtilitiesPrivate::minorOf(uint64_t packed) { return (packed >> 16) & 0xFFFF; }
uint32_t KVUtilitiesPrivate::bugFixOf(uint64_t packed) { return (packed >> 32) & 0xFFFF; }

uint32_t KVUtilitiesPrivate::hexSystemVersion(const VersionLookup &lookup) {
    uint32_t bcd = 0;
    return lookup(kBCDSelector, bcd) ? bcd : 0;
}

uint64_t KVUtilitiesPrivate::threePartVersion(const VersionLookup &lookup) {
    uint32_t major = 0, minor = 0, bugFix = 0;
    if (lookup(kMajorSelector, major)) {
        if (!lookup(kMinorSelector, minor)) {
            minor = 0;
            kvLog("cannot get minor version number");
        }
        if (!lookup(kBugFixSelector, bugFix)) {
            bugFix = 0;
            kvLog("cannot get bugfix version number");
        }
        return packVersion(major, minor, bugFix);
    }
    uint32_t bcd = 0;
    if (!lookup(kBCDSelector, bcd)) return 0;
    return packVersion(((bcd >> 12) & 0xF) * 10 + ((bcd >> 8) & 0xF), (bcd >> 4) & 0xF, bcd & 0xF);
}

int KVUtilitiesPrivate::decimalVersion(uint64_t packed) {
    return int(majorOf(packed) * 10000 + minorOf(packed) * 100 + bugFixOf(packed));
}

int KVUtilitiesPrivate::cachedDecimalVersion(std::atomic<int> &cache, const VersionLookup &lookup) {
    int version = cache.load();
    if (version == 0) {
        version = decimalVersion(threePartVersion(lookup));
        if (version != 0) cache.store(version);
    }
    return version;
}

QString KVUtilitiesPrivate::systemVersionString(uint64_t packed) {
    const int major = int(majorOf(packed)), minor = int(minorOf(packed));
    const int bugFix = int(bugFixOf(packed));
    if (bugFix == 0) return kvFormat("%d.%d", major, minor);
    return kvFormat("%d.%d.%d", major, minor, bugFix);
}

QString KVUtilitiesPrivate::safeHTTPS(const QString &url, int decimalVersion,
                                      int defaultThreshold) {
    const qint64 configured = KVUserDefaults::standardUserDefaults().integerForKey("httpsMinSys");
    // One unsigned comparison admits 100000..109999 and nothing else.
    const qint64 threshold = quint64(configured) - 100000u < 10000u ? configured : defaultThreshold;
    if (decimalVersion >= threshold) return url;
    if (url.startsWith(QLatin1String("https:"))) return QLatin1String("http") + url.mid(5);
    return url;
}

QString KVUtilitiesPrivate::localizedDateString(const QString &date, const QString &localeName,
                                                const QString &timeZoneId) {
    UErrorCode status = U_ZERO_ERROR;
    // A fixed POSIX locale, so the digits parse the same whatever the user's.
    icu::SimpleDateFormat parser(icu::UnicodeString(u"yyyy-MM-dd HH:mm:ss Z"),
                                 icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) return QString();
    parser.setLenient(false);
    const icu::UnicodeString text = toUnicodeString(date + QLatin1String(" 00:00:00 +0000"));
    icu::ParsePosition position(0);
    const UDate instant = parser.parse(text, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != text.length()) return QString();

    std::unique_ptr<icu::DateFormat> formatter(icu::DateFormat::createDateInstance(
        icu::DateFormat::kShort, icu::Locale(localeName.toUtf8().constData())));
    if (!formatter) return QString();
    if (!timeZoneId.isEmpty())
        formatter->adoptTimeZone(icu::TimeZone::createTimeZone(toUnicodeString(timeZoneId)));
    icu::UnicodeString result;
    formatter->format(instant, result);
    return fromUnicodeString(result);
}

QString KVUtilitiesPrivate::unpackResourceType(uint32_t packed) {
    QString type;
    for (; packed != 0; packed >>= 5) type += QChar(char16_t((packed & 0x1F) + 0x60));
    return type;
}

// ---- System version ----

uint32_t KVUtilities::hexSystemVersion() {
    return KVUtilitiesPrivate::hexSystemVersion(KVUtilitiesPrivate::systemVersionLookup);
}

uint64_t KVUtilities::threePartVersion() {
    return KVUtilitiesPrivate::threePartVersion(KVUtilitiesPrivate::systemVersionLookup);
}

int KVUtilities::decimalSystemVersion() {
    return KVUtilitiesPrivate::cachedDecimalVersion(s_decimalSystemVersion,
                                                    KVUtilitiesPrivate::systemVersionLookup);
}

QString KVUtilities::systemVersionString() {
    return KVUtilitiesPrivate::systemVersionString(threePartVersion());
}

// ---- The program's own version ----

static QString infoString(const QString &key) {
    const QString value = KVBundle::mainBundle().objectForInfoDictionaryKey(key).toString();
    return value.isNull() ? QStringLiteral("") : value;
}

QString KVUtilities::versionString() { return infoString("CFBundleVersion"); }

QString KVUtilities::applicationName() { return infoString("CFBundleExecutable"); }

QString KVUtilities::plainVersionOf(const QString &version) {
    for (qsizetype i = 0; i < version.size(); ++i) {
        if (version[i] != u'.' && !isAsciiDigit(version[i])) return version.left(i);
    }
    return version;
}

QString KVUtilities::plainVersionString() { return plainVersionOf(versionString()); }

NSComparisonResult KVUtilities::compareVersion(const QString &a, const QString &withVersion) {
    const VersionParts first = splitVersion(a), second = splitVersion(withVersion);
    const NSComparisonResult numbers =
        KVUtilitiesPrivate::numericCompare(first.number, second.number);
    if (numbers != NSOrderedSame) return numbers;
    if (first.stageRank != second.stageRank)
        return first.stageRank < second.stageRank ? NSOrderedAscending : NSOrderedDescending;
    return KVUtilitiesPrivate::numericCompare(first.stageNumber, second.stageNumber);
}

// ---- Helpers ----

QString KVUtilities::localizedDateString(const QString &date) {
    return KVUtilitiesPrivate::localizedDateString(date, QLocale::system().name());
}

QString KVUtilities::safeHTTPS(const QString &url) {
    return KVUtilitiesPrivate::safeHTTPS(url, decimalSystemVersion(),
                                         KVUtilitiesPrivate::defaultHTTPSThreshold());
}

qsizetype KVUtilities::appType() {
    const QString type = KVUtilitiesPrivate::unpackResourceType(kPackedResourceType);
    return KVBundle::mainBundle().pathsForResourcesOfType(type).size();
}

// ---- System-release predicates ----

double KVUtilities::kitVersionNumber() { return KVUtilitiesPrivate::kitVersionNumber(); }

// The mixture is deliberate: the three oldest round the kit version down (one
// of them strictly), the rest compare it as it is, one against a fraction.
bool KVUtilities::pantherOrOlder(double kit) { return std::floor(kit) <= 743.0; }
bool KVUtilities::leopardOrNewer(double kit) { return std::floor(kit) > 824.0; }
bool KVUtilities::snowleopardOrNewer(double kit) { return std::floor(kit) >= 1038.0; }
bool KVUtilities::lionOrNewer(double kit) { return kit >= 1138.0; }
bool KVUtilities::mountainLionOrNewer(double kit) { return kit >= 1187.0; }
bool KVUtilities::mavericksOrNewer(double kit) { return kit >= 1265.0; }
bool KVUtilities::yosemiteOrNewer(double kit) { return kit >= 1343.0; }
bool KVUtilities::elCapitanOrNewer(double kit) { return kit >= 1404.0; }
bool KVUtilities::sierraOrNewer(double kit) { return kit >= 1490.0; }
bool KVUtilities::highSierraOrNewer(double kit) { return kit >= 1537.2; }
bool KVUtilities::mojaveOrNewer(double kit) { return kit >= 1639.0; }
bool KVUtilities::catalinaOrNewer(double kit) { return kit >= 1861.0; }
bool KVUtilities::bigSurOrNewer(double kit) { return kit >= 2000.0; }
bool KVUtilities::montereyOrNewer(double kit) { return kit >= 2080.0; }
bool KVUtilities::venturaOrNewer(double kit) { return kit >= 2299.0; }

bool KVUtilities::pantherOrOlder() { return pantherOrOlder(kitVersionNumber()); }
bool KVUtilities::leopardOrNewer() { return leopardOrNewer(kitVersionNumber()); }
bool KVUtilities::snowleopardOrNewer() { return snowleopardOrNewer(kitVersionNumber()); }
bool KVUtilities::lionOrNewer() { return lionOrNewer(kitVersionNumber()); }
bool KVUtilities::mountainLionOrNewer() { return mountainLionOrNewer(kitVersionNumber()); }
bool KVUtilities::mavericksOrNewer() { return mavericksOrNewer(kitVersionNumber()); }
bool KVUtilities::yosemiteOrNewer() { return yosemiteOrNewer(kitVersionNumber()); }
bool KVUtilities::elCapitanOrNewer() { return elCapitanOrNewer(kitVersionNumber()); }
bool KVUtilities::sierraOrNewer() { return sierraOrNewer(kitVersionNumber()); }
bool KVUtilities::highSierraOrNewer() { return highSierraOrNewer(kitVersionNumber()); }
bool KVUtilities::mojaveOrNewer() { return mojaveOrNewer(kitVersionNumber()); }
bool KVUtilities::catalinaOrNewer() { return catalinaOrNewer(kitVersionNumber()); }
bool KVUtilities::bigSurOrNewer() { return bigSurOrNewer(kitVersionNumber()); }
bool KVUtilities::montereyOrNewer() { return montereyOrNewer(kitVersionNumber()); }
bool KVUtilities::venturaOrNewer() { return venturaOrNewer(kitVersionNumber()); }

// ---- Running programs ----

namespace {

// Every wait of this unit polls at this interval.
void sleepOnePoll() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

// How much of the bytes ends with whole characters: a trailing lead byte
// still missing its continuation bytes is held back.
qsizetype wholeCharacters(QByteArrayView bytes) {
    for (qsizetype i = bytes.size() - 1; i >= 0 && i >= bytes.size() - 3; --i) {
        const uchar byte = uchar(bytes[i]);
        if ((byte & 0xC0) == 0x80) continue;
        const qsizetype length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return bytes.size() - i < length ? i : bytes.size();
    }
    return bytes.size();
}

}  // namespace

void KVUtilitiesPrivate::Utf8Text::reserve(qint64 bytes) {
    // A byte of UTF-8 never gives more than one UTF-16 code unit; the slack
    // covers what the decoder asks beyond that.
    if (m_length + bytes > m_text.size()) m_text.resize(qsizetype(m_length + bytes + 16));
}

void KVUtilitiesPrivate::Utf8Text::decode(QByteArrayView bytes) {
    reserve(m_decoder.requiredSpace(bytes.size()));
    QChar *end = m_decoder.appendToBuffer(m_text.data() + m_length, bytes);
    m_length = end - m_text.constData();
}

void KVUtilitiesPrivate::Utf8Text::append(QByteArrayView bytes) {
    QByteArray joined;
    if (!m_pending.isEmpty()) {
        joined = std::exchange(m_pending, QByteArray());
        joined.append(bytes);
        bytes = joined;
    }
    const qsizetype whole = wholeCharacters(bytes);
    decode(bytes.first(whole));
    m_pending = bytes.sliced(whole).toByteArray();
}

QString KVUtilitiesPrivate::Utf8Text::text() {
    if (!m_pending.isEmpty() || m_decoder.hasError()) return QString();
    if (m_length == 0) return QStringLiteral("");
    m_text.truncate(m_length);
    return std::exchange(m_text, QString());
}

QString KVUtilities::runShellScript(const QString &scriptPath,
                                    const std::optional<QStringList> &withParameters,
                                    double timeout) {
    const QString name =
        KVPath::lastPathComponent(KVPath::stringByExpandingTildeInPath(scriptPath));
    KVUtilitiesPrivate::ScriptRun script;
    QString error;
    // The temporary file stays when the script cannot start.
    if (!script.start(scriptPath, withParameters.value_or(QStringList()), &error))
        return kvFormat(QStringLiteral("script %@ failed: %@"), name, error);
    const auto start = std::chrono::steady_clock::now();
    while (script.isRunning()) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        // Compared in single precision, as scripts have always been timed.
        if (static_cast<float>(elapsed.count()) > timeout) {
            kvLog(QStringLiteral("script timeout: %@ %@"), name,
                  withParameters ? QVariant(*withParameters) : QVariant());
            script.terminate();
            break;
        }
        sleepOnePoll();
    }
    script.terminate();
    KVUtilitiesPrivate::Utf8Text text;
    QString result;
    if (script.readOutput([&text](qint64 size) { text.reserve(size); },
                          [&text](QByteArrayView piece) { text.append(piece); }, &error)) {
        result = text.text();
        if (result.isNull()) error = QStringLiteral("The output is no UTF-8 text.");
    }
    if (result.isNull()) kvLog(QStringLiteral("error getting result: %@"), error);
    script.removeOutput();
    return result;
}

QString KVUtilities::shellCommandResult(const QString &command) {
    QByteArray output;
    if (!KVUtilitiesPrivate::commandOutput(command, &output)) return QString();
    KVUtilitiesPrivate::Utf8Text text;
    text.reserve(output.size());
    text.append(output);
    return text.text();
}

void KVUtilities::openFile(const QString &path) {
    QString error;
    KVUtilitiesPrivate::openWithDesktop(path, &error);
}

// ---- Files ----

QString KVUtilities::resolvedAlias(const QString &path) {
    const QString target = KVUtilitiesPrivate::symbolicLinkTarget(path);
    return target.isNull() ? path : target;
}

QString KVUtilities::fileSystemTypeFor(const QString &path) {
    kvLog(QStringLiteral("FS Info %@"), path);
    int result = 0;
    const QString type = KVUtilitiesPrivate::fileSystemType(path, &result);
    kvLog(QStringLiteral("statfs err = %d"), result);
    return result == 0 && !type.isNull() ? type : QStringLiteral("");
}

// ---- How the program was started ----

bool KVUtilitiesPrivate::runningFromDistributionDisk(const QString &bundlePath) {
    const QString volume = removableVolumeOf(bundlePath);
    return !volume.isNull() &&
           (KVFileManager::fileExistsAtPath(volume + QStringLiteral("/.launchlock")) ||
            KVFileManager::fileExistsAtPath(volume + QStringLiteral("/launchlock")));
}

bool KVUtilitiesPrivate::installationMode(const QString &bundlePath) {
    // A quarantined copy runs from a place the system chose; so does one
    // unpacked into the temporary folder that survives restarts.
    return runningFromDistributionDisk(bundlePath) ||
           bundlePath.contains(QLatin1String("/AppTranslocation/")) ||
           bundlePath.contains(QLatin1String("/var/tmp/"));
}

bool KVUtilities::runningFromDistributionDisk() {
    return KVUtilitiesPrivate::runningFromDistributionDisk(KVBundle::mainBundle().bundlePath());
}

bool KVUtilities::installationMode() {
    return KVUtilitiesPrivate::installationMode(KVBundle::mainBundle().bundlePath());
}

bool KVUtilities::wasLaunchedByProcess(const QString &creatorCode) {
    const KVProcessRef launcher =
        KVProcess::processWithPID(KVUtilitiesPrivate::launchingProcessID());
    return launcher && launcher->signatureString() == creatorCode;
}

bool KVUtilities::wasLaunchedAsLoginItem() { return KVUtilitiesPrivate::launchedFromAutostart(); }

void KVUtilitiesPrivate::launchMicro(bool leaveWindowOrder, const QString &microPath) {
    // Leaving full-screen mode for a flash of another application would be
    // worse than doing nothing.
    if (KVWindowServer::isFrontWindowFullScreen()) return;
    const KVProcessRef front = KVProcess::frontProcess();
    const auto pollWhile = [](const std::function<bool()> &condition) {
        int count = 0;
        for (; count < 500 && condition(); ++count) sleepOnePoll();
        return count;
    };
    QString error;
    if (microPath.isNull())
        error = QStringLiteral("the helper application Micro is missing");
    else
        openWithDesktop(microPath, &error);
    if (error.isEmpty()) {
        // The remembered process is compared with itself on purpose: a fixed
        // half second for the helper to come forward while there is one.
        const int waited = pollWhile([&front] { return front && front->isEqual(front); });
        kvLog(QStringLiteral("wait count (Micro) = %d"), waited);
        if (front) {
            front->wakeUp();
            std::this_thread::sleep_for(std::chrono::microseconds(1));
            front->wakeUp();
            if (!leaveWindowOrder) front->setFrontProcessFrontWindowOnly();
        }
        pollWhile([&front] {
            const KVProcessRef now = KVProcess::frontProcess();
            return !(now && now->isEqual(front));
        });
    } else {
        kvLog(QStringLiteral("** Error while running Micro: %@"), error);
    }
    if (front) {
        front->setFrontProcessFrontWindowOnly();
        front->wakeUp();
    }
}

void KVUtilities::launchMicro(bool leaveWindowOrder) {
    KVUtilitiesPrivate::launchMicro(
        leaveWindowOrder,
        KVBundle::mainBundle().pathForResource(QStringLiteral("Micro"), QStringLiteral("app")));
}

// ---- Following the front process ----

namespace {

// On the main thread, where the watcher runs; locked all the same, since
// any thread may ask for the publisher.
struct ClipboardBookkeeping {
    std::mutex lock;
    KVProcessRef activeProcess;
    int clipboardChangeCountAtStartOfActiveProcess = 0;
    KVProcessRef clipboardPublisherProcess;
};

ClipboardBookkeeping &clipboardBookkeeping() {
    // Never destroyed: records must not outlive the application object.
    static auto *bookkeeping = new ClipboardBookkeeping;
    return *bookkeeping;
}

bool isActive(const ClipboardBookkeeping &bookkeeping, const KVProcessRef &front) {
    // No front process is never the active one, as nil equals nothing.
    return front && front->isEqual(bookkeeping.activeProcess);
}

// processSwitched with the front process known; the lock is held.
void noteFrontProcess(ClipboardBookkeeping &bookkeeping, const KVProcessRef &front) {
    if (isActive(bookkeeping, front)) return;
    const int count = KVWindowServer::clipboardChangeCount();
    if (bookkeeping.activeProcess &&
        count != bookkeeping.clipboardChangeCountAtStartOfActiveProcess)
        bookkeeping.clipboardPublisherProcess = bookkeeping.activeProcess;
    bookkeeping.activeProcess = front;
    bookkeeping.clipboardChangeCountAtStartOfActiveProcess = count;
}

}  // namespace

void KVUtilities::initialize() {
    static std::mutex lock;
    static bool initialized = false;
    const std::lock_guard<std::mutex> guard(lock);
    if (initialized) return;
    // The watcher belongs to the main thread, whichever thread came first.
    if (QCoreApplication *app = QCoreApplication::instance()) {
        QMetaObject::invokeMethod(app, [] {
            QTimer::singleShot(1000, QCoreApplication::instance(), &installProcessWatcher);
        });
    }
    initialized = true;
    kvLog(QStringLiteral("**Utilities initialized"));
}

void KVUtilities::installProcessWatcher() {
    KVProcess::installNotifications();
    KVNotificationCenter::defaultCenter().addObserver(KVProcessChangeNotification, nullptr,
                                                      &processSwitched);
}

void KVUtilities::processSwitched(const KVNotification &) {
    ClipboardBookkeeping &bookkeeping = clipboardBookkeeping();
    const std::lock_guard<std::mutex> guard(bookkeeping.lock);
    noteFrontProcess(bookkeeping, KVProcess::frontProcess());
}

KVProcessRef KVUtilities::clipboardPublisherProcess() {
    initialize();
    ClipboardBookkeeping &bookkeeping = clipboardBookkeeping();
    const std::lock_guard<std::mutex> guard(bookkeeping.lock);
    // A switch the notification has not told of yet counts too.
    noteFrontProcess(bookkeeping, KVProcess::frontProcess());
    if (KVWindowServer::clipboardChangeCount() ==
        bookkeeping.clipboardChangeCountAtStartOfActiveProcess)
        return bookkeeping.clipboardPublisherProcess;
    // The clipboard changed while the front process has been in front.
    return bookkeeping.activeProcess;
}

// ---- The user's environment ----

std::optional<qint64> KVUtilitiesPrivate::numberValue(const QVariant &value) {
    // JSON's kinds tell numbers (booleans are numbers in a property list too)
    // from every other type.
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (value.typeId() == QMetaType::QString || (!json.isDouble() && !json.isBool()))
        return std::nullopt;
    // A fraction is cut toward zero, as integerValue does; Qt would round.
    const bool fraction = value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float;
    return fraction ? qint64(value.toDouble()) : value.toLongLong();
}

std::optional<qint64> KVUtilitiesPrivate::integerValue(const QVariant &value) {
    if (value.typeId() == QMetaType::QString) return KVUserDefaults::integerValue(value.toString());
    return numberValue(value);
}

bool KVUtilitiesPrivate::timeInRange(const QVariant &start, const QVariant &end, int nowMinutes) {
    constexpr qint64 kMinutesPerDay = 1440;
    std::optional<qint64> from = integerValue(start);
    std::optional<qint64> to = integerValue(end);
    if (!from || !to) return false;
    for (std::optional<qint64> *minutes : {&from, &to}) {
        if (**minutes < 0) **minutes += kMinutesPerDay;
        **minutes %= kMinutesPerDay;
    }
    if (*to > *from) return *from <= nowMinutes && nowMinutes < *to;
    if (*from > *to) return nowMinutes >= *from || nowMinutes < *to;
    return false;
}

bool KVUtilitiesPrivate::doNotDisturbScheduled(const QVariant &preferences) {
    if (preferences.typeId() != QMetaType::QByteArray) return false;
    const QVariant parsed = KVPropertyList::fromData(preferences.toByteArray());
    if (parsed.typeId() != QMetaType::QVariantMap) return false;
    const QVariantMap dnd = parsed.toMap();
    if (dnd.contains(QStringLiteral("userPref"))) return true;
    const QVariant scheduled = dnd.value(QStringLiteral("scheduledTime"));
    if (scheduled.typeId() != QMetaType::QVariantMap) return false;
    const QVariantMap schedule = scheduled.toMap();
    if (integerValue(schedule.value(QStringLiteral("enabled"))) != 1) return false;
    return KVUtilities::currentTimeInDNDRangeStartMinutes(schedule.value(QStringLiteral("start")),
                                                          schedule.value(QStringLiteral("end")));
}

QString KVUtilitiesPrivate::processorTypeLetter(const QString &type, bool translated) {
    // Linux calls 64-bit ARM "aarch64" where other systems say "arm64".
    if (type.startsWith(QLatin1String("arm")) || type.startsWith(QLatin1String("aarch64")))
        return QStringLiteral("A");
    if (type.startsWith(QLatin1String("x86"))) return QLatin1String(translated ? "A" : "I");
    return type;
}

bool KVUtilitiesPrivate::statusShowsTracer(QByteArrayView status) {
    static constexpr QByteArrayView kKey = "\nTracerPid:";
    const qsizetype at = status.indexOf(kKey);
    if (at < 0) return false;
    QByteArrayView rest = status.sliced(at + kKey.size());
    const qsizetype end = rest.indexOf('\n');
    if (end >= 0) rest.truncate(end);
    bool ok = false;
    const qint64 tracer = rest.trimmed().toLongLong(&ok);
    return ok && tracer != 0;
}

QString KVUtilitiesPrivate::systemTintImageName(bool yosemiteOrNewer, bool darkMenuTheme,
                                                bool blueTint) {
    const char *base = !yosemiteOrNewer ? "tintMav" : darkMenuTheme ? "tintYosDark" : "tintYos";
    return QLatin1String(base) + QLatin1String(blueTint ? "Blue" : "Graphite");
}

QImage KVUtilitiesPrivate::tintImageNamed(const QString &name) {
    struct Drawing {
        const char *base;
        QColor frame;
    };
    // The older look has a darker frame; the dark one a light frame that
    // stands out on a dark menu.
    static const Drawing kDrawings[] = {
        {"tintYosDark", QColor(255, 255, 255, 140)},
        {"tintYos", QColor(0, 0, 0, 60)},
        {"tintMav", QColor(0, 0, 0, 140)},
    };
    const QColor blue(10, 96, 255), graphite(142, 142, 147);
    for (const Drawing &drawing : kDrawings) {
        const QLatin1String base(drawing.base);
        if (!name.startsWith(base)) continue;
        const QStringView tint = QStringView(name).sliced(base.size());
        if (tint != u"Blue" && tint != u"Graphite") return QImage();
        constexpr int kSide = 16;
        QImage image(kSide, kSide, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(drawing.frame, 1.0));
        painter.setBrush(tint == u"Blue" ? blue : graphite);
        painter.drawEllipse(QRectF(1.5, 1.5, kSide - 3, kSide - 3));
        return image;
    }
    return QImage();
}

bool KVUtilities::darkMenuTheme() {
    if (mojaveOrNewer()) return darkAppearance();
    if (yosemiteOrNewer())
        return KVUserDefaults::standardUserDefaults().stringForKey(
                   QStringLiteral("AppleInterfaceStyle")) == QLatin1String("Dark");
    return false;
}

bool KVUtilities::darkAppearance() {
    return mojaveOrNewer() && KVDynamicColorPrivate::applicationIsDark();
}

bool KVUtilities::reducedTransparency() {
    return KVUserDefaults(QStringLiteral("com.apple.universalaccess"))
        .boolForKey(QStringLiteral("reduceTransparency"));
}

QImage KVUtilities::systemTintImage() {
    // Only the graphite accent makes the controls graphite; every other
    // accent keeps the blue tint.
    const bool blueTint = KVDynamicColor::accentColorName() != KVAccentColorNameGraphite;
    return KVUtilitiesPrivate::tintImageNamed(
        KVUtilitiesPrivate::systemTintImageName(yosemiteOrNewer(), darkMenuTheme(), blueTint));
}

bool KVUtilities::displayIsZoomed() { return false; }

double KVUtilities::idleTime() {
    const std::optional<uint32_t> idle = KVWindowServer::idleMilliseconds();
    return idle ? *idle / 1000.0 : -1.0;
}

namespace {
// Named after what hides the menu bar elsewhere; YES means full screen.
std::atomic<bool> s_menuBarIsShown{false};
}  // namespace

bool KVUtilities::fullScreenMode() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        if (!KVWindowServer::watchFrontWindowFullScreen(
                [](bool fullScreen) { s_menuBarIsShown = fullScreen; }))
            kvLog(QStringLiteral("could not install menu bar visibility event handl)"));
    });
    return s_menuBarIsShown;
}

QList<KVProcessRef> KVUtilities::secureInputProcesses() {
    if (!KVWindowServer::isKeyboardGrabbedElsewhere()) return {};
    const KVProcessRef front = KVProcess::frontProcess();
    return front ? QList<KVProcessRef>{front} : QList<KVProcessRef>{};
}

bool KVUtilities::doNotDisturbMode() {
    if (KVUtilitiesPrivate::notificationsInhibited().value_or(false)) return true;
    // The kit version is fixed at one that keeps the quiet hours here.
    static const KVUserDefaults *notificationDefaults =
        new KVUserDefaults(QStringLiteral("com.apple.ncprefs"));
    return KVUtilitiesPrivate::doNotDisturbScheduled(
        notificationDefaults->objectForKey(QStringLiteral("dnd_prefs")));
}

bool KVUtilities::currentTimeInDNDRangeStartMinutes(const QVariant &start,
                                                    const QVariant &endMinutes) {
    const KVDateComponents now = DateExtensions::gregorianDateComponents(
        QDateTime::currentDateTime(), KVCalendarUnit::Hour | KVCalendarUnit::Minute);
    return KVUtilitiesPrivate::timeInRange(start, endMinutes, int(now.hour * 60 + now.minute));
}

QString KVUtilities::uniqueComputerID() {
    static QMutex lock;
    static QString found;
    const QMutexLocker locker(&lock);
    if (found.isNull()) found = KVUtilitiesPrivate::machineSerialNumber();
    return found;
}

QString KVUtilities::computerModel() { return KVUtilitiesPrivate::machineModel(); }

QString KVUtilities::processorType() { return KVUtilitiesPrivate::machineType(); }

QString KVUtilities::processorTypeLetter() {
    return KVUtilitiesPrivate::processorTypeLetter(processorType(), rosettaMode());
}

bool KVUtilities::rosettaMode() { return KVUtilitiesPrivate::runsTranslated(); }

bool KVUtilities::debugging() { return KVUtilitiesPrivate::tracerAttached(); }
