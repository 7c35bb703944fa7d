// train: installs the product with administrator rights for the installer,
// which starts it as "train SOURCE DESTINATION [WRAPPER]" through the
// system's elevation program and reads success from the exit status.
//
// It runs as root on paths and files that the invoking user controls, so it
// trusts none of them: it reads the source with that user's rights, walks the
// destination without following links, writes only through descriptors of
// folders it opened that way, and hands out no set-id bit, no group or
// other write permission and no extended attribute outside user.*.
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <QFile>
#include <cstdio>
#include <vector>

#include "InstallFunction.h"

namespace {
// The user pkexec ran the tool for. PKEXEC_UID is set by pkexec itself; a
// process that could set it otherwise already runs as root.
bool invokingUser(InstallRights *rights) {
    const QByteArray uid = qgetenv("PKEXEC_UID");
    if (uid.isEmpty() || getuid() != 0) return true;
    bool ok = false;
    const uint value = uid.toUInt(&ok);
    const passwd *entry = ok ? getpwuid(uid_t(value)) : nullptr;
    if (!entry) return false;
    rights->user = entry->pw_uid;
    rights->group = entry->pw_gid;
    rights->home = entry->pw_dir;
    // The user's groups, not root's, decide what the user may read.
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) {
        groups.resize(size_t(count));
        if (getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) return false;
    }
    return setgroups(size_t(count), groups.data()) == 0;
}

// The user's resource limits come along through pkexec; a low one could end
// the run at a moment the user chooses, or make it fail half-way.
void liftLimits() {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    for (const int resource : {RLIMIT_CPU, RLIMIT_FSIZE, RLIMIT_AS, RLIMIT_DATA})
        setrlimit(resource, &unlimited);
    const rlimit files{4096, 4096};
    setrlimit(RLIMIT_NOFILE, &files);
    const rlimit stack{64 << 20, 64 << 20};
    setrlimit(RLIMIT_STACK, &stack);
}

// A path travels as bytes: one that does not come back the same from text
// would be installed under another name than the one authorised, and a
// control character could make the dialog show another command line.
bool isPlainPath(const char *argument) {
    const QByteArray bytes(argument);
    for (const char c : bytes) {
        if (uchar(c) < 0x20 || c == 0x7f) return false;
    }
    return QFile::encodeName(QFile::decodeName(bytes)) == bytes;
}
}  // namespace

int main(int argc, char **argv) {
    // Running as root, the tool takes nothing it was not built for: two or
    // three absolute paths, nothing relative to wherever it was started.
    bool usable = argc == 3 || argc == 4;
    for (int i = 1; usable && i < argc; ++i) usable = argv[i][0] == '/' && isPlainPath(argv[i]);
    if (!usable) {
        fprintf(stderr, "usage: train source-path destination-path [wrapper-path]\n");
        return EX_USAGE;
    }
    InstallRights rights;
    rights.restricted = geteuid() == 0;
    if (rights.restricted) liftLimits();
    if (!invokingUser(&rights)) {
        fprintf(stderr, "train: cannot take the invoking user's identity\n");
        return EX_NOPERM;
    }
    umask(077);
    const QString wrapper = argc == 4 ? QFile::decodeName(argv[3]) : QString();
    return InstallApplication(QFile::decodeName(argv[1]), QFile::decodeName(argv[2]), wrapper,
                              rights);
}
