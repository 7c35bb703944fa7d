// The Linux half: the system version is the kernel release; children start
// through posix_spawn (never a shell between), file-system types come from
// the mount table, and login items from the session's autostart entries.
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFile>
#include <QList>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "KVBundle.h"
#include "KVFormat.h"
#include "KVPath.h"
#include "KVSpawnSignals_p.h"
#include "KVUtilities_p.h"
#include "KVWorkspace.h"

extern char **environ;

namespace {

// The leading digits of the index-th dotted part; false when it has none.
bool releaseNumber(const QByteArray &release, int index, uint32_t &value) {
    const QList<QByteArray> parts = release.split('.');
    if (index >= parts.size()) return false;
    const QByteArray &part = parts[index];
    qsizetype length = 0;
    uint64_t number = 0;
    while (length < part.size() && part[length] >= '0' && part[length] <= '9') {
        number = std::min<uint64_t>(number * 10 + uint64_t(part[length] - '0'), UINT32_MAX);
        ++length;
    }
    if (length == 0) return false;
    value = uint32_t(number);
    return true;
}

}  // namespace

bool KVUtilitiesPrivate::kernelReleaseLookup(const QByteArray &release, OSType selector,
                                             uint32_t &value) {
    if (selector == kMajorSelector) return releaseNumber(release, 0, value);
    if (selector == kMinorSelector) return releaseNumber(release, 1, value);
    if (selector == kBugFixSelector) return releaseNumber(release, 2, value);
    if (selector != kBCDSelector) return false;

    uint32_t major = 0, minor = 0, bugFix = 0;
    if (!releaseNumber(release, 0, major)) return false;
    releaseNumber(release, 1, minor);
    releaseNumber(release, 2, bugFix);
    // One BCD digit each for minor and bug-fix, two for major.
    major = std::min<uint32_t>(major, 99);
    minor = std::min<uint32_t>(minor, 9);
    bugFix = std::min<uint32_t>(bugFix, 9);
    value = (major / 10) << 12 | (major % 10) << 8 | minor << 4 | bugFix;
    return true;
}

bool KVUtilitiesPrivate::systemVersionLookup(OSType selector, uint32_t &value) {
    struct utsname names;
    if (uname(&names) != 0) return false;
    return kernelReleaseLookup(QByteArray(names.release), selector, value);
}

// No application kit here; this number turns the appearance code paths on.
double KVUtilitiesPrivate::kitVersionNumber() { return 2299.0; }

// The decimal version here is the kernel's (6.1.0 is 60100), which says
// nothing of TLS: every kernel this builds on has it, so nothing is downgraded
// unless "httpsMinSys" asks for it.
int KVUtilitiesPrivate::defaultHTTPSThreshold() { return 0; }

// ---- Running programs ----

namespace {

QByteArray local(const QString &path) { return QFile::encodeName(path); }

QString errorText(int error) { return QString::fromLocal8Bit(strerror(error)); }

// The home folder byte for byte, so that one whose name is no UTF-8 works too.
QByteArray homeFolder() {
    const QByteArray home = qgetenv("HOME");
    if (!home.isEmpty()) return home;
    const passwd *entry = getpwuid(getuid());
    return entry && entry->pw_dir ? QByteArray(entry->pw_dir) : QByteArray("/");
}

// Absolute, so that neither a later change of folder nor a leading "-"
// (which a program would take for an option) changes what it names.
QByteArray absolute(QByteArray path) {
    if (path.startsWith('/')) return path;
    char *folder = getcwd(nullptr, 0);
    path.prepend(folder ? QByteArray(folder) + '/' : QByteArray("./"));
    free(folder);
    return path;
}

// A leading "~" or "~user" expanded from the raw home folders.
QByteArray expandedTilde(const QString &path) {
    QByteArray bytes = local(path);
    if (!bytes.startsWith('~')) return bytes;
    const qsizetype slash = bytes.indexOf('/');
    const QByteArray user = bytes.mid(1, slash < 0 ? -1 : slash - 1);
    QByteArray home = user.isEmpty() ? homeFolder() : QByteArray();
    if (const passwd *entry = user.isEmpty() ? nullptr : getpwnam(user.constData()))
        home = entry->pw_dir;
    if (home.isEmpty()) return bytes;
    return home + (slash < 0 ? QByteArray() : bytes.mid(slash));
}

// posix_spawn with the child's signals as a new program expects them.
class Spawner {
public:
    Spawner() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&m_attributes);
    }
    ~Spawner() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    Spawner(const Spawner &) = delete;
    Spawner &operator=(const Spawner &) = delete;

    // 0, or the error number. A program without a slash is looked for in
    // PATH; one with a slash runs as it is, never handed to a shell when it
    // is no program.
    int spawn(const QList<QByteArray> &words, pid_t *pid, bool newSession = false) {
        kvSetDefaultSignals(&m_attributes, newSession ? POSIX_SPAWN_SETSID : 0);
        std::vector<char *> argv;
        for (const QByteArray &word : words) argv.push_back(const_cast<char *>(word.constData()));
        argv.push_back(nullptr);
        // Nothing else of this process's: a pipe's other end held open by a
        // child would keep its reader waiting.
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        const auto start = words[0].contains('/') ? posix_spawn : posix_spawnp;
        return start(pid, argv[0], &actions, &m_attributes, argv.data(), environ);
    }

    posix_spawn_file_actions_t actions;

private:
    posix_spawnattr_t m_attributes;
};

// The descriptor moved above the standard streams: in a process that runs
// without them a new file may get their number, which the child's own
// redirections would then overwrite before using it.
int aboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

// Reaps the child now when it has ended, else on a thread of its own once it
// does: nothing waits for it, and it never stays a zombie.
void reap(pid_t pid) {
    pid_t ended;
    do ended = waitpid(pid, nullptr, WNOHANG);
    while (ended < 0 && errno == EINTR);
    if (ended != 0) return;
    std::thread([pid] {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

}  // namespace

KVUtilitiesPrivate::ScriptRun::~ScriptRun() {
    if (m_pid > 0 && !m_reaped) reap(m_pid);
    if (m_output >= 0) close(m_output);
}

bool KVUtilitiesPrivate::ScriptRun::start(const QString &path, const QStringList &arguments,
                                          QString *error) {
    const QByteArray folder = qgetenv("TMPDIR");
    m_outputPath = (folder.isEmpty() ? QByteArray("/tmp") : folder) + "/KVScript.XXXXXX";
    m_output = aboveStandardStreams(mkostemp(m_outputPath.data(), O_CLOEXEC));
    if (m_output < 0) {
        *error = errorText(errno);
        m_outputPath.clear();
        return false;
    }
    // The script itself is the program: its first line names its interpreter.
    QList<QByteArray> words{absolute(expandedTilde(path))};
    for (const QString &argument : arguments) words << argument.toUtf8();
    Spawner spawner;
    posix_spawn_file_actions_addopen(&spawner.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&spawner.actions, m_output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&spawner.actions, m_output, STDERR_FILENO);
    const QByteArray home = homeFolder();
    posix_spawn_file_actions_addchdir_np(&spawner.actions, home.constData());
    if (const int failed = spawner.spawn(words, &m_pid)) {
        m_pid = -1;
        *error = errorText(failed);
        return false;
    }
    return true;
}

bool KVUtilitiesPrivate::ScriptRun::isRunning() {
    if (m_pid <= 0 || m_reaped) return false;
    pid_t ended;
    do ended = waitpid(m_pid, nullptr, WNOHANG);
    while (ended < 0 && errno == EINTR);
    m_reaped = ended != 0;
    return !m_reaped;
}

// Until it is reaped the process id cannot name another process.
void KVUtilitiesPrivate::ScriptRun::terminate() {
    if (m_pid > 0 && !m_reaped) kill(m_pid, SIGTERM);
}

bool KVUtilitiesPrivate::ScriptRun::readOutput(const std::function<void(qint64)> &size,
                                               const std::function<void(QByteArrayView)> &piece,
                                               QString *error) const {
    struct stat status;
    if (m_output < 0 || fstat(m_output, &status) != 0) {
        *error = errorText(m_output < 0 ? EBADF : errno);
        return false;
    }
    // Only what is there now: a child the script left behind may go on
    // writing for ever.
    size(status.st_size);
    QByteArray buffer(qsizetype(std::min<off_t>(status.st_size, 1 << 20)), Qt::Uninitialized);
    for (off_t at = 0; at < status.st_size;) {
        const ssize_t got = pread(m_output, buffer.data(),
                                  size_t(std::min<off_t>(buffer.size(), status.st_size - at)), at);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            *error = errorText(errno);
            return false;
        }
        if (got == 0) break;
        piece(QByteArrayView(buffer.constData(), got));
        at += got;
    }
    return true;
}

void KVUtilitiesPrivate::ScriptRun::removeOutput() {
    if (!m_outputPath.isEmpty()) unlink(m_outputPath.constData());
}

bool KVUtilitiesPrivate::commandOutput(const QString &command, QByteArray *output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    for (int &end : ends) end = aboveStandardStreams(end);
    Spawner spawner;
    posix_spawn_file_actions_adddup2(&spawner.actions, ends[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int failed = spawner.spawn({"/bin/sh", "-c", command.toUtf8()}, &pid);
    close(ends[1]);
    char buffer[65536];
    for (ssize_t got; !failed && (got = read(ends[0], buffer, sizeof buffer)) != 0;) {
        if (got > 0)
            output->append(buffer, got);
        else if (errno != EINTR)
            break;
    }
    close(ends[0]);
    // A command may close its output and go on running: it is not waited for.
    if (!failed) reap(pid);
    return !failed;
}

bool KVUtilitiesPrivate::openWithDesktop(const QString &path, QString *error) {
    if (path.isEmpty()) {
        *error = QStringLiteral("no item to open");
        return false;
    }
    // The desktop's opener would only show an application bundle's folder.
    const QString clean = KVPath::stringByRemovingRedundantSlashes(path);
    if (clean.endsWith(QLatin1String(".app")) && KVBundle::bundleWithPath(clean)) {
        if (KVWorkspace::openFile(clean)) return true;
        *error = kvFormat(QStringLiteral("%@ could not be started"), clean);
        return false;
    }
    // In a session of its own, so that what it opens outlives this program.
    Spawner spawner;
    pid_t pid = -1;
    if (const int failed = spawner.spawn({"xdg-open", absolute(local(path))}, &pid, true)) {
        *error = errorText(failed);
        return false;
    }
    reap(pid);
    return true;
}

// ---- Files ----

QString KVUtilitiesPrivate::symbolicLinkTarget(const QString &path) {
    const QByteArray bytes = local(path);
    struct stat status;
    if (bytes.isEmpty() || lstat(bytes.constData(), &status) != 0 || !S_ISLNK(status.st_mode))
        return QString();
    char *target = realpath(bytes.constData(), nullptr);
    if (!target) return QString();
    const QString resolved = QFile::decodeName(target);
    free(target);
    return resolved;
}

namespace {

// Mount points in the mount table write space, tab, newline and backslash as
// three octal digits after a backslash.
QByteArray unescapeMountPoint(const QByteArray &field) {
    QByteArray out;
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3') {
            out += char(field.mid(i + 1, 3).toInt(nullptr, 8));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

bool isWithin(const QByteArray &path, const QByteArray &mountPoint) {
    return mountPoint == "/" || path == mountPoint ||
           (path.startsWith(mountPoint) && path[mountPoint.size()] == '/');
}

}  // namespace

QString KVUtilitiesPrivate::fileSystemType(const QString &path, int *result) {
    const QByteArray bytes = local(path);
    struct statfs volume;
    *result = statfs(bytes.constData(), &volume);
    if (*result != 0) return QString();
    // The mount that holds the item: the deepest mount point above its real
    // path, the later one where two are stacked on the same point.
    // A folder on the way that cannot be read leaves the path as it is given.
    char *real = realpath(bytes.constData(), nullptr);
    const QByteArray resolved = real ? QByteArray(real) : absolute(bytes);
    free(real);
    QFile table(QStringLiteral("/proc/self/mountinfo"));
    if (!table.open(QIODevice::ReadOnly)) return QString();
    QByteArray type;
    qsizetype deepest = -1;
    for (const QByteArray &line : table.readAll().split('\n')) {
        // ID parent major:minor root mount-point options [optional...] - type source ...
        const QList<QByteArray> fields = line.split(' ');
        const qsizetype separator = fields.indexOf("-");
        if (fields.size() < 5 || separator < 0 || separator + 1 >= fields.size()) continue;
        const QByteArray mountPoint = unescapeMountPoint(fields[4]);
        if (mountPoint.size() >= deepest && isWithin(resolved, mountPoint)) {
            deepest = mountPoint.size();
            type = fields[separator + 1];
        }
    }
    return QString::fromUtf8(type);
}

// ---- How the program was started ----

QString KVUtilitiesPrivate::removableVolumeOf(const QString &path) {
    // Where the desktop's disk service mounts removable volumes for a user.
    for (const QLatin1String top : {QLatin1String("/media/"), QLatin1String("/run/media/")}) {
        if (!path.startsWith(top)) continue;
        const QStringList parts = path.mid(top.size()).split(QLatin1Char('/'));
        if (parts.size() < 2) return QString();
        for (const QString &part : parts.first(2)) {
            if (part.isEmpty() || part == QLatin1String(".") || part == QLatin1String(".."))
                return QString();
        }
        return top + parts[0] + QLatin1Char('/') + parts[1];
    }
    return QString();
}

pid_t KVUtilitiesPrivate::launchingProcessID() { return getppid(); }

bool KVUtilitiesPrivate::isAutostartControlGroup(const QByteArray &controlGroups) {
    // The session's systemd turns each autostart entry into a unit
    // "app-<name>@autostart.service"; the process runs in its group or below.
    for (const QByteArray &line : controlGroups.split('\n')) {
        const QByteArray path = line.mid(line.indexOf(':', line.indexOf(':') + 1) + 1);
        for (const QByteArray &unit : path.split('/')) {
            if (unit.startsWith("app-") && unit.endsWith("@autostart.service") &&
                unit.size() > int(strlen("app-@autostart.service")))
                return true;
        }
    }
    return false;
}

bool KVUtilitiesPrivate::launchedFromAutostart() {
    // Sessions that start autostart entries themselves hand this to them.
    if (!qgetenv("DESKTOP_AUTOSTART_ID").isEmpty()) return true;
    QFile groups(QStringLiteral("/proc/self/cgroup"));
    return groups.open(QIODevice::ReadOnly) && isAutostartControlGroup(groups.readAll());
}

// ---- The user's environment ----

namespace {

// A service that hangs must not hold its caller (a painting, say) for the
// bus's 25 seconds; one that merely runs on a busy machine still answers
// within a second. A service that is not running answers at once.
constexpr int kServiceTimeoutMilliseconds = 1000;
constexpr qsizetype kMaxIdentityFileBytes = 4096;

// Up to the buffer's size from a regular file, never waiting on a FIFO or a
// device; -1 when it cannot be read.
ssize_t readRegularFile(const char *path, char *buffer, size_t size) {
    const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return -1;
    struct stat info {};
    ssize_t length = -1;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        length = 0;
        ssize_t got = 0;
        while (size_t(length) < size &&
               (got = ::read(fd, buffer + length, size - size_t(length))) != 0) {
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) break;
            length += got;
        }
    }
    ::close(fd);
    return length;
}

}  // namespace

std::optional<QVariant> KVUtilitiesPrivate::askRunningService(QDBusMessage call) {
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return std::nullopt;
    // Asking starts no service: one that is not running has no answer.
    call.setAutoStartService(false);
    const QDBusMessage reply = bus.call(call, QDBus::Block, kServiceTimeoutMilliseconds);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    QVariant value = reply.arguments().constFirst();
    // Settings come wrapped in as many as two variants.
    for (int depth = 0; depth < 4 && value.metaType() == QMetaType::fromType<QDBusVariant>();
         ++depth)
        value = qvariant_cast<QDBusVariant>(value).variant();
    return value;
}

std::optional<bool> KVUtilitiesPrivate::notificationsInhibited() {
    QDBusMessage get = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.freedesktop.Notifications") << QStringLiteral("Inhibited");
    const std::optional<QVariant> value = askRunningService(get);
    if (!value || value->typeId() != QMetaType::Bool) return std::nullopt;
    return value->toBool();
}

QString KVUtilitiesPrivate::firstReadableText(const QStringList &paths) {
    for (const QString &path : paths) {
        char buffer[kMaxIdentityFileBytes];
        const ssize_t length =
            readRegularFile(QFile::encodeName(path).constData(), buffer, sizeof buffer);
        if (length <= 0) continue;
        const QString text = QString::fromUtf8(buffer, length).trimmed();
        if (!text.isEmpty()) return text;
    }
    return QString();
}

QString KVUtilitiesPrivate::machineSerialNumber() {
    // The serial is for root only; everyone may read the machine id.
    return firstReadableText(
        {QStringLiteral("/sys/class/dmi/id/product_serial"), QStringLiteral("/etc/machine-id")});
}

QString KVUtilitiesPrivate::machineModel() {
    return firstReadableText({QStringLiteral("/sys/class/dmi/id/product_name")});
}

QString KVUtilitiesPrivate::machineType() {
    struct utsname names {};
    if (::uname(&names) != 0) return QStringLiteral("?");
    return QString::fromUtf8(names.machine);
}

// Linux runs no program translated for another processor by itself.
bool KVUtilitiesPrivate::runsTranslated() { return false; }

bool KVUtilitiesPrivate::tracerAttached() {
    char status[kMaxIdentityFileBytes];
    const ssize_t length = readRegularFile("/proc/self/status", status, sizeof status);
    return length > 0 && statusShowsTracer(QByteArrayView(status, length));
}
