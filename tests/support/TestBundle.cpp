#include "TestBundle.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <csignal>
#include <vector>

#include "KVProcess.h"

extern char **environ;

QString TestBundle::make(const QString &folder, const QString &name, QVariantMap info,
                         bool withExecutable, KVPropertyList::Format format) {
    const QString bundle = folder + "/" + name + ".app";
    if (!info.contains("CFBundleExecutable")) info.insert("CFBundleExecutable", name);
    QDir().mkpath(bundle + "/Contents/MacOS");
    QDir().mkpath(bundle + "/Contents/Resources");
    KVPropertyList::writeFile(info, bundle + "/Contents/Info.plist", format);
    if (withExecutable) {
        const QString exe =
            bundle + "/Contents/MacOS/" + info.value("CFBundleExecutable").toString();
        QFile::remove(exe);
        QFile::copy(KV_TEST_CHILD, exe);
        QFile::setPermissions(exe, QFile::permissions(KV_TEST_CHILD));
    }
    return bundle;
}

QString TestBundle::executableOf(const QString &bundlePath) {
    const QVariantMap info = KVPropertyList::fromFile(bundlePath + "/Contents/Info.plist").toMap();
    return bundlePath + "/Contents/MacOS/" + info.value("CFBundleExecutable").toString();
}

pid_t TestBundle::start(const QString &program, const QStringList &arguments) {
    int ready[2];
    if (pipe(ready) != 0) return -1;
    std::vector<QByteArray> words{QFile::encodeName(program)};
    for (const QString &a : arguments) words.push_back(a.toLocal8Bit());
    words.push_back("--ready-fd");
    words.push_back(QByteArray::number(ready[1]));
    std::vector<char *> argv;
    for (QByteArray &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], nullptr, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    close(ready[1]);
    if (rc != 0) {
        close(ready[0]);
        return -1;
    }
    pollfd fd{ready[0], POLLIN, 0};
    char byte = 0;
    const bool said = poll(&fd, 1, 10000) == 1 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!said) {
        stop(pid);
        return -1;
    }
    return pid;
}

void TestBundle::stopProcessesAt(const QString &path) {
    for (const KVProcessRef &process : KVProcess::allProcesses())
        if (process->path().startsWith(path)) kill(process->unixPID(), SIGKILL);
}

void TestBundle::stop(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}
