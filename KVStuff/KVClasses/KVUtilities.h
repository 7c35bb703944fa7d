// System and version information: the running system's version in its several
// forms, this program's own version strings, the ordering of version strings,
// and small helpers that depend on the system version; running scripts and
// commands, opening files, resolving aliases, and how the program was started.
// Statics only.
#pragma once

#include <QImage>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <cstdint>
#include <optional>

#include "KVCompatibility.h"
#include "KVNotificationCenter.h"
#include "KVProcess.h"

class KVUtilities {
public:
    KVUtilities() = delete;

    // The system's BCD version word (0x1049 for 10.4.9); 0 when unknown.
    static uint32_t hexSystemVersion();
    // Major in bits 0-15, minor in bits 16-31, bug-fix in bits 32-47.
    static uint64_t threePartVersion();
    // major * 10000 + minor * 100 + bug-fix; remembered once it is non-zero.
    static int decimalSystemVersion();
    // "13.0" stays two parts; "13.2.1" gets three.
    static QString systemVersionString();

    // The main bundle's CFBundleVersion / CFBundleExecutable, "" when absent.
    static QString versionString();
    static QString applicationName();
    // The leading run of digits and dots: "2.1b3" -> "2.1".
    static QString plainVersionOf(const QString &version);
    static QString plainVersionString();

    // Dotted numbers, then an optional stage letter and number, where for equal
    // numbers p < d < a < b < f < release: "2.5b3" < "2.5".
    static NSComparisonResult compareVersion(const QString &a, const QString &withVersion);

    // "2024-03-07" as a short date in the user's locale; null when unparsable.
    static QString localizedDateString(const QString &date);

    // The URL with http instead of https on systems too old for modern TLS.
    static QString safeHTTPS(const QString &url);

    // How many resources of this program's own bundle type the main bundle holds.
    static qsizetype appType();

    // The application-kit version number the system reports.
    static double kitVersionNumber();

    // System-release predicates on the running kit version, and on a given one.
    static bool pantherOrOlder();
    static bool leopardOrNewer();
    static bool snowleopardOrNewer();
    static bool lionOrNewer();
    static bool mountainLionOrNewer();
    static bool mavericksOrNewer();
    static bool yosemiteOrNewer();
    static bool elCapitanOrNewer();
    static bool sierraOrNewer();
    static bool highSierraOrNewer();
    static bool mojaveOrNewer();
    static bool catalinaOrNewer();
    static bool bigSurOrNewer();
    static bool montereyOrNewer();
    static bool venturaOrNewer();

    static bool pantherOrOlder(double kitVersion);
    static bool leopardOrNewer(double kitVersion);
    static bool snowleopardOrNewer(double kitVersion);
    static bool lionOrNewer(double kitVersion);
    static bool mountainLionOrNewer(double kitVersion);
    static bool mavericksOrNewer(double kitVersion);
    static bool yosemiteOrNewer(double kitVersion);
    static bool elCapitanOrNewer(double kitVersion);
    static bool sierraOrNewer(double kitVersion);
    static bool highSierraOrNewer(double kitVersion);
    static bool mojaveOrNewer(double kitVersion);
    static bool catalinaOrNewer(double kitVersion);
    static bool bigSurOrNewer(double kitVersion);
    static bool montereyOrNewer(double kitVersion);
    static bool venturaOrNewer(double kitVersion);

    // ---- Running programs ----
    // These are the only places where the library starts child processes;
    // none of them puts a path through a shell.

    // Executes the script ("~" expanded) directly with the parameters (none
    // for std::nullopt), standard input from the null device, standard output
    // and errors into one temporary file, in the home folder. Polls every
    // millisecond; past the time-out (seconds) the script is asked to end and
    // its output so far is returned. The output as UTF-8 text ("" when it
    // wrote nothing, null when it is no UTF-8); "script <name> failed: <why>"
    // when it cannot be started. Blocks the calling thread.
    static QString runShellScript(const QString &scriptPath,
                                  const std::optional<QStringList> &withParameters, double timeout);
    // The standard output of "/bin/sh -c command" once the command closes it;
    // null when it is no UTF-8 text. Errors go where the program's go.
    static QString shellCommandResult(const QString &command);
    // Opens the item with the desktop's opener (an application bundle is
    // started itself) and returns without waiting.
    static void openFile(const QString &path);

    // ---- Files ----

    // The final target of a symbolic link, through chains of them; the
    // argument itself for anything else (also for a dangling link or a loop).
    static QString resolvedAlias(const QString &path);
    // The type name of the file system holding the path ("ext4", "tmpfs"),
    // "" when the path cannot be examined. Logs two lines on every call.
    static QString fileSystemTypeFor(const QString &path);

    // ---- How the program was started ----

    // The main bundle lies on a removable volume that marks itself as the
    // distribution disk with ".launchlock" or "launchlock" at its top.
    static bool runningFromDistributionDisk();
    // Not running from its final place: from the distribution disk or from a
    // temporary copy.
    static bool installationMode();
    // The process that started this one has that four-character signature.
    static bool wasLaunchedByProcess(const QString &creatorCode);
    // Started by the session as one of the user's login items.
    static bool wasLaunchedAsLoginItem();
    // Briefly brings the helper application "Micro" of the main bundle to the
    // front, then gives the front back to the application that had it (its
    // front window only, unless leaveWindowOrder). Does nothing in full-screen
    // mode. Blocks for about a second.
    static void launchMicro(bool leaveWindowOrder);

    // ---- Following the front process ----

    // Once per process, under a lock: logs "**Utilities initialized" and
    // installs the process watcher a second later on the main thread. The
    // queries that need the watcher call it.
    static void initialize();
    // Has processSwitched follow KVProcessChangeNotification from any sender.
    static void installProcessWatcher();
    // Notes a new front process with the clipboard's change count; when the
    // count moved while the process before was in front, that one published
    // the clipboard.
    static void processSwitched(const KVNotification &notification);
    // The process that last changed the clipboard as far as known: the front
    // process when the clipboard changed while it has been in front. Null
    // until the clipboard has changed while some process was in front.
    static KVProcessRef clipboardPublisherProcess();

    // ---- The user's environment ----

    // The menu bar and menus are dark: the dark appearance is in force.
    static bool darkMenuTheme();
    // The application's appearance is the dark one: its own palette when it
    // set one, else the desktop's colour scheme; NO without an answer.
    static bool darkAppearance();
    // The user asked for less transparency ("reduceTransparency" of the
    // universal-access preferences).
    static bool reducedTransparency();
    // The drawn image of the control tint for the appearance in force:
    // "tintYos", "tintYosDark" or "tintMav", then "Blue" or "Graphite".
    static QImage systemTintImage();
    // The screen is never magnified for the program.
    static bool displayIsZoomed();
    // Seconds since the user's last input; -1.0 without a display or without
    // the server's screen-saver extension.
    static double idleTime();
    // YES once the active window has turned full screen, NO once a window
    // that is not has become active, and NO before either has happened. The
    // first call starts watching, on the main thread.
    static bool fullScreenMode();
    // The front process while another program holds the keyboard grabbed
    // (it reads a password, say); empty (none) otherwise.
    static QList<KVProcessRef> secureInputProcesses();

    // The notification server holds notifications back, or the scheduled
    // quiet hours of the notification preferences are on and hold now.
    static bool doNotDisturbMode();
    // Whether the local time of day lies in [start, end) minutes after
    // midnight, across midnight when start > end; never when they are equal.
    // Both must be numbers or texts (read as integerValue); else false.
    static bool currentTimeInDNDRangeStartMinutes(const QVariant &start,
                                                  const QVariant &endMinutes);
    // The machine's serial number, else its machine id; kept once found,
    // null while neither can be read.
    static QString uniqueComputerID();
    // The machine's product name; null when the firmware names none.
    static QString computerModel();
    // The machine field of uname ("x86_64", "aarch64"); "?" when it fails.
    static QString processorType();
    // "A" for ARM (or x86 under translation), "I" for x86, else the type.
    static QString processorTypeLetter();
    // Whether this process runs translated for another processor.
    static bool rosettaMode();
    // Whether a debugger (any tracer) is attached to this process.
    static bool debugging();
};
