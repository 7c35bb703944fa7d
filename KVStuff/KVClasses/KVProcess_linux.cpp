// The Linux half of KVProcess: processes come from /proc, and a process's
// bundle is the ".app" folder that encloses its executable.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "KVBundle.h"
#include "KVFourCharCode.h"
#include "KVPath.h"
#include "KVProcess_p.h"
#include "KVWindowServer.h"

namespace {

constexpr OSType kUnknownSignature = 0x3F3F3F3F;         // '????'
constexpr unsigned long kKernelThreadFlag = 0x00200000;  // PF_KTHREAD

QByteArray readFile(const QByteArray &path) {
    QByteArray contents;
    const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return contents;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        contents.append(buffer, n);
    }
    close(fd);
    return contents;
}

QByteArray readProcFile(pid_t pid, const char *entry) {
    return readFile("/proc/" + QByteArray::number(pid) + "/" + entry);
}

struct ProcStat {
    char state = '?';
    unsigned long flags = 0;
    unsigned long long userTime = 0;   // clock ticks
    unsigned long long startTime = 0;  // clock ticks since boot
};

std::optional<ProcStat> readStat(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    // Read into a stack buffer and parsed in place: lookups read it often,
    // and quitting without pidfds polls it every millisecond.
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", int(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    char line[1024];
    ssize_t size;
    do {
        size = read(fd, line, sizeof line - 1);
    } while (size < 0 && errno == EINTR);
    close(fd);
    if (size <= 0) return std::nullopt;
    line[size] = '\0';
    // The command name in parentheses may itself hold spaces and ")".
    const char *field = std::strrchr(line, ')');
    if (!field || field[1] != ' ' || field[2] == '\0') return std::nullopt;
    field += 2;
    ProcStat stat;
    stat.state = *field;
    // Field 3 is the state; 9 the flags, 14 the user time, 22 the start time.
    for (int number = 3; number <= 22; ++number) {
        char *end = nullptr;
        const unsigned long long value = std::strtoull(field, &end, 10);
        if (number == 9) stat.flags = value;
        if (number == 14) stat.userTime = value;
        if (number == 22) stat.startTime = value;
        field = std::strchr(field, ' ');
        if (!field) return number == 22 ? std::optional(stat) : std::nullopt;
        ++field;
    }
    return stat;
}

bool hasEnded(const ProcStat &stat) { return stat.state == 'Z' || stat.state == 'X'; }

std::optional<uid_t> realUserID(pid_t pid) {
    for (const QByteArray &line : readProcFile(pid, "status").split('\n')) {
        if (!line.startsWith("Uid:")) continue;
        bool ok = false;
        const uid_t uid = line.mid(4).simplified().split(' ').value(0).toUInt(&ok);
        if (ok) return uid;
    }
    return std::nullopt;
}

ProcessSerialNumber serialNumberOf(pid_t pid, const ProcStat &stat) {
    return {uint32_t(stat.startTime & 0xFFFFFFFFu), uint32_t(pid)};
}

// Whether the pid is a live process of the current user, and its identity.
std::optional<ProcessSerialNumber> listedSerialNumber(pid_t pid) {
    const auto stat = readStat(pid);
    if (!stat || hasEnded(*stat) || (stat->flags & kKernelThreadFlag)) return std::nullopt;
    if (realUserID(pid) != getuid()) return std::nullopt;
    return serialNumberOf(pid, *stat);
}

pid_t runningPID(const ProcessSerialNumber &psn) {
    const pid_t pid = pid_t(psn.lowLongOfPSN);
    const auto stat = readStat(pid);
    if (!stat || hasEnded(*stat) || serialNumberOf(pid, *stat) != psn) return 0;
    return pid;
}

// The executable's path, or a null string when it cannot be read (another
// user's process, a kernel thread).
QString executablePath(pid_t pid) {
    const QByteArray link = "/proc/" + QByteArray::number(pid) + "/exe";
    std::vector<char> buffer(4096);
    for (;;) {
        const ssize_t n = readlink(link.constData(), buffer.data(), buffer.size());
        if (n < 0) return QString();
        if (size_t(n) < buffer.size()) {
            QString path = QFile::decodeName(QByteArray(buffer.data(), n));
            // An executable replaced on disk (as by an update) still runs.
            const QLatin1String deleted(" (deleted)");
            if (path.endsWith(deleted)) path.chop(deleted.size());
            return path;
        }
        buffer.resize(buffer.size() * 2);
    }
}

QString commandName(pid_t pid) {
    return QString::fromLocal8Bit(readProcFile(pid, "comm")).trimmed();
}

// Where a running process lives: its executable and the enclosing bundle.
struct Location {
    pid_t pid = 0;
    QString executable;
    QString bundle;
    QVariantMap info;  // the bundle's Info.plist
};

std::optional<Location> locate(const ProcessSerialNumber &psn) {
    Location location;
    location.pid = runningPID(psn);
    if (location.pid == 0) return std::nullopt;
    location.executable = executablePath(location.pid);
    if (!location.executable.isNull()) {
        location.bundle = KVBundle::enclosingApplicationBundle(location.executable);
        if (!location.bundle.isNull()) {
            if (const auto bundle = KVBundle::bundleWithPath(location.bundle))
                location.info = bundle->infoDictionary();
        }
    }
    return location;
}

QString nonEmptyString(const QVariantMap &info, const QString &key) {
    const QVariant value = info.value(key);
    if (value.typeId() != QMetaType::QString || value.toString().isEmpty()) return QString();
    return value.toString();
}

QString nameOf(const Location &location) {
    QString name = nonEmptyString(location.info, QStringLiteral("CFBundleName"));
    if (name.isNull() && !location.executable.isNull())
        name = KVPath::lastPathComponent(location.executable);
    if (name.isNull()) name = commandName(location.pid);
    return name;
}

}  // namespace

QList<ProcessSerialNumber> KVProcessPrivate::processList() {
    std::vector<pid_t> pids;
    if (DIR *proc = opendir("/proc")) {
        while (const dirent *entry = readdir(proc)) {
            char *end = nullptr;
            const long pid = std::strtol(entry->d_name, &end, 10);
            if (pid > 0 && *end == '\0') pids.push_back(pid_t(pid));
        }
        closedir(proc);
    }
    std::sort(pids.begin(), pids.end());
    QList<ProcessSerialNumber> list;
    for (const pid_t pid : pids) {
        if (const auto psn = listedSerialNumber(pid)) list.append(*psn);
    }
    return list;
}

std::optional<ProcessSerialNumber> KVProcessPrivate::serialNumberForPID(pid_t pid) {
    return listedSerialNumber(pid);
}

std::optional<ProcessSerialNumber> KVProcessPrivate::currentSerialNumber() {
    return listedSerialNumber(getpid());
}

std::optional<ProcessSerialNumber> KVProcessPrivate::frontSerialNumber() {
    const pid_t pid = KVWindowServer::frontProcessID();
    return pid > 0 ? listedSerialNumber(pid) : std::nullopt;
}

pid_t KVProcessPrivate::pidForSerialNumber(const ProcessSerialNumber &psn) {
    return runningPID(psn);
}

std::optional<KVProcessPrivate::ProcessInformation> KVProcessPrivate::processInformation(
    const ProcessSerialNumber &psn) {
    const auto location = locate(psn);
    if (!location) return std::nullopt;
    ProcessInformation information;
    information.name = nameOf(*location);
    if (information.name.isNull()) information.name = QStringLiteral("");
    const QString code = nonEmptyString(location->info, QStringLiteral("CFBundleSignature"));
    const OSType signature = code.size() == 4 ? KVFourCharCode::fromString(code) : 0;
    information.signature = signature != 0 ? signature : kUnknownSignature;
    return information;
}

QString KVProcessPrivate::bundleLocation(const ProcessSerialNumber &psn) {
    // Outside a bundle the executable stands in, so copies can still be found.
    const auto location = locate(psn);
    if (!location) return QString();
    return location->bundle.isNull() ? location->executable : location->bundle;
}

QVariantMap KVProcessPrivate::informationDictionary(const ProcessSerialNumber &psn) {
    const auto location = locate(psn);
    if (!location) return {};
    QVariantMap info = location->info;
    if (location->bundle.isNull())
        info.insert(QStringLiteral("CFBundleName"), nameOf(*location));
    else
        info.insert(QStringLiteral("BundlePath"), location->bundle);
    info.insert(QStringLiteral("pid"), int(location->pid));
    if (!location->executable.isNull())
        info.insert(QStringLiteral("CFBundleExecutablePath"), location->executable);
    return info;
}

QString KVProcessPrivate::displayName(const ProcessSerialNumber &psn) {
    const auto location = locate(psn);
    if (!location) return QString();
    return nonEmptyString(location->info, QStringLiteral("CFBundleDisplayName"));
}

bool KVProcessPrivate::isApplicationPackage(const QString &path) {
    return path.endsWith(QLatin1String(".app")) && QFileInfo(path).isDir() &&
           QFileInfo(path + QStringLiteral("/Contents/Info.plist")).isFile();
}

// Linux files have no resource forks, so there is never a 'vers' resource.
QByteArray KVProcessPrivate::versionResource(const QString &) { return QByteArray(); }

KVProcessPrivate::QuitHandle::QuitHandle(const ProcessSerialNumber &psn, pid_t pid) : m_psn(psn) {
    if (pid <= 0) return;
    // A pidfd names this very process; it is made first and the identity
    // checked after, so a pid reused in between is never signalled. Kernels
    // without pidfds fall back to the pid.
    m_fd = int(syscall(SYS_pidfd_open, pid, 0));
    if (runningPID(psn) != pid) {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
        return;
    }
    m_pid = pid;
}

KVProcessPrivate::QuitHandle::~QuitHandle() {
    if (m_fd >= 0) close(m_fd);
}

bool KVProcessPrivate::QuitHandle::signal(int number) {
    if (m_pid <= 0) return false;
    const long result =
        m_fd >= 0 ? syscall(SYS_pidfd_send_signal, m_fd, number, nullptr, 0) : kill(m_pid, number);
    // Only a process that is gone could not be reached. One we may not
    // signal still runs: the request failed, which the wait then shows.
    return result == 0 || errno != ESRCH;
}

bool KVProcessPrivate::QuitHandle::terminate() { return signal(SIGTERM); }

bool KVProcessPrivate::QuitHandle::forceTerminate() { return signal(SIGKILL); }

bool KVProcessPrivate::QuitHandle::waitForExit(int milliseconds) const {
    if (m_pid <= 0) return true;
    if (m_fd < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        return runningPID(m_psn) == 0;
    }
    // A pidfd becomes readable when its process has exited: one call both
    // waits and tells, and wakes the moment the process ends.
    pollfd watch{m_fd, POLLIN, 0};
    return poll(&watch, 1, milliseconds) == 1;
}

void KVProcessPrivate::wakeUp(pid_t pid) {
    if (pid > 0) kill(pid, SIGCONT);
}

double proc_start_time(pid_t pid) {
    const auto stat = readStat(pid);
    const double ticksPerSecond = double(sysconf(_SC_CLK_TCK));
    if (!stat || ticksPerSecond <= 0) return 0.0;
    // The kernel counts the start from boot; boot time is in /proc/stat.
    static const double bootTime = [] {
        for (const QByteArray &line : readFile("/proc/stat").split('\n')) {
            if (line.startsWith("btime ")) return line.mid(6).trimmed().toDouble();
        }
        return 0.0;
    }();
    if (bootTime == 0.0) return 0.0;
    return bootTime + double(stat->startTime) / ticksPerSecond;
}

double proc_cpu_time(pid_t pid) {
    const auto stat = readStat(pid);
    const double ticksPerSecond = double(sysconf(_SC_CLK_TCK));
    if (!stat || ticksPerSecond <= 0) return 0.0;
    return double(stat->userTime) / ticksPerSecond;
}
