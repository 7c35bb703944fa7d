// What the portable half of KVUtilities and its operating-system halves
// share. Not part of the library's interface; tests and the string helpers
// include it for the pieces they reuse.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QDBusMessage>
#include <QImage>
#include <QString>
#include <QStringDecoder>
#include <QStringList>
#include <QStringView>
#include <QVariant>
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

#include "KVCompatibility.h"

namespace KVUtilitiesPrivate {

constexpr OSType fourCharCode(const char (&code)[5]) {
    return OSType(uint8_t(code[0])) << 24 | OSType(uint8_t(code[1])) << 16 |
           OSType(uint8_t(code[2])) << 8 | OSType(uint8_t(code[3]));
}

// The system-version questions: major, minor, bug-fix, and the BCD word.
inline constexpr OSType kMajorSelector = fourCharCode("sys1");
inline constexpr OSType kMinorSelector = fourCharCode("sys2");
inline constexpr OSType kBugFixSelector = fourCharCode("sys3");
inline constexpr OSType kBCDSelector = fourCharCode("sysv");

// Answers one selector; false when the system cannot.
using VersionLookup = std::function<bool(OSType selector, uint32_t &value)>;

// ---- Operating-system half ----

// The running system's answers.
bool systemVersionLookup(OSType selector, uint32_t &value);
double kitVersionNumber();

#if defined(Q_OS_LINUX)
// Answers from a kernel release such as "6.1.0-28-amd64": the leading digits
// of its first three dotted parts; the BCD word caps minor and bug-fix at 9.
bool kernelReleaseLookup(const QByteArray &release, OSType selector, uint32_t &value);
#endif

// A script running with standard output and errors going into a temporary
// file of its own.
class ScriptRun {
public:
    ScriptRun() = default;
    // Reaps the script; one still running is reaped in the background once it
    // ends, so it never stays a zombie.
    ~ScriptRun();
    ScriptRun(const ScriptRun &) = delete;
    ScriptRun &operator=(const ScriptRun &) = delete;

    // Makes the temporary file, then starts the script: the path (a leading
    // "~" expanded) is executed directly, in the home folder, with standard
    // input from the null device. False with the reason in *error; the
    // temporary file, once made, then stays.
    bool start(const QString &path, const QStringList &arguments, QString *error);
    bool isRunning();
    // Asks the script to end (SIGTERM); nothing once it has ended.
    void terminate();
    // The bytes written so far, in pieces in order; false with the reason.
    // sizeHint gets the total first.
    bool readOutput(const std::function<void(qint64 sizeHint)> &size,
                    const std::function<void(QByteArrayView)> &piece, QString *error) const;
    void removeOutput();

private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_output = -1;
    QByteArray m_outputPath;
};

// Appends the standard output of "/bin/sh -c command" until the command
// closes it; false when the shell could not be started.
bool commandOutput(const QString &command, QByteArray *output);
// Starts the desktop's opener for the item (an application bundle's own
// executable, detached); false with the reason in *error.
bool openWithDesktop(const QString &path, QString *error);
// The final target of a symbolic link; null for anything else or when the
// chain does not end in an item.
QString symbolicLinkTarget(const QString &path);
// The type name of the file system holding the path; *result is the status
// of the system call (0 on success).
QString fileSystemType(const QString &path, int *result);
// The top folder of the removable volume the path lies on; null elsewhere.
QString removableVolumeOf(const QString &path);
// The process that started this one.
pid_t launchingProcessID();
// Started by the session from one of its autostart entries.
bool launchedFromAutostart();
// Whether the control-group listing (/proc/<pid>/cgroup) puts the process
// in a unit the session made from an autostart entry.
bool isAutostartControlGroup(const QByteArray &controlGroups);

// ---- Portable half ----

// UTF-8 text decoded piece by piece into one buffer, so that large output is
// never held twice. Pieces may split a character.
class Utf8Text {
public:
    // Room for that many bytes' text, so that appending never reallocates.
    void reserve(qint64 bytes);
    void append(QByteArrayView bytes);
    // "" for no bytes; null when they were no UTF-8.
    QString text();

private:
    void decode(QByteArrayView bytes);

    QStringDecoder m_decoder{QStringDecoder::Utf8, QStringDecoder::Flag::Stateless};
    QString m_text;
    qsizetype m_length = 0;
    // The start of a character whose end is in the next piece.
    QByteArray m_pending;
};

bool runningFromDistributionDisk(const QString &bundlePath);
bool installationMode(const QString &bundlePath);
// launchMicro with the helper application at the path (null: none).
void launchMicro(bool leaveWindowOrder, const QString &microPath);

uint64_t packVersion(uint32_t major, uint32_t minor, uint32_t bugFix);
uint32_t majorOf(uint64_t packed);
uint32_t minorOf(uint64_t packed);
uint32_t bugFixOf(uint64_t packed);

uint32_t hexSystemVersion(const VersionLookup &lookup);
uint64_t threePartVersion(const VersionLookup &lookup);
int decimalVersion(uint64_t packed);
// The decimal version, kept in the cache once it is non-zero.
int cachedDecimalVersion(std::atomic<int> &cache, const VersionLookup &lookup);
QString systemVersionString(uint64_t packed);

// The URL as seen by a system of the given decimal version, with the
// threshold used when "httpsMinSys" holds no accepted value.
QString safeHTTPS(const QString &url, int decimalVersion, int defaultThreshold = 101300);
// The platform's own threshold: the decimal version from which its systems
// speak current TLS.
int defaultHTTPSThreshold();

// The date in the named locale ("de_DE") and IANA time zone (empty: the
// default zone).
QString localizedDateString(const QString &date, const QString &localeName,
                            const QString &timeZoneId = QString());

// Five bits a character, least significant first, each plus 0x60.
QString unpackResourceType(uint32_t packed);

// Ordering of numeric search: runs of ASCII digits compare by value, other
// characters by UTF-16 code unit (folded with Qt::CaseInsensitive), and a
// proper prefix sorts first.
NSComparisonResult numericCompare(QStringView a, QStringView b,
                                  Qt::CaseSensitivity cs = Qt::CaseSensitive);

// ---- The user's environment ----

// A number of any kind (a fraction cut toward zero, a boolean 0 or 1);
// nothing for texts and every other type.
std::optional<qint64> numberValue(const QVariant &value);
// What a stored object answers as its integer value: a number, or a text by
// its leading digits; nothing for every other type.
std::optional<qint64> integerValue(const QVariant &value);
// currentTimeInDNDRangeStartMinutes at that time of day (minutes).
bool timeInRange(const QVariant &start, const QVariant &end, int nowMinutes);
// The scheduled quiet hours of the notification preferences' "dnd_prefs"
// property list (data), at the current time.
bool doNotDisturbScheduled(const QVariant &preferences);
QString processorTypeLetter(const QString &type, bool translated);
// The name of the control-tint image for those answers.
QString systemTintImageName(bool yosemiteOrNewer, bool darkMenuTheme, bool blueTint);
// The control-tint image of that name, drawn here; a null image for a name
// that is none of them.
QImage tintImageNamed(const QString &name);
// Whether a /proc/<pid>/status listing names a tracer.
bool statusShowsTracer(QByteArrayView status);

// Operating-system half.
#if defined(Q_OS_LINUX)
// The first value of the answer of a session-bus service that is already
// running, out of its variants; nothing when none answers soon.
std::optional<QVariant> askRunningService(QDBusMessage call);
#endif
// The notification server's own switch; nothing when no server answers.
std::optional<bool> notificationsInhibited();
// The trimmed text of the first of the regular files that can be read and
// is not blank (4 KB at the most); null when none is.
QString firstReadableText(const QStringList &paths);
QString machineSerialNumber();
QString machineModel();
QString machineType();
bool runsTranslated();
// Reads this process's status without Qt, so it also works in a child
// made by fork.
bool tracerAttached();

}  // namespace KVUtilitiesPrivate
