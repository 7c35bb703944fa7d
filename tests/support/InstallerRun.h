// What the installer's tests share: a controller set up here, the road, the trash and the log.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <csignal>
#include <memory>

#include "InstallerWinController.h"
#include "LogCapture.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace InstallerRun {

// The set-up's lines in log, every request to end the program in quits.
struct SetUpController {
    bool setUpController(const QStringList &argv, const QString &bundle, bool events = false) {
        controller = std::make_unique<InstallerWinController>(argv, bundle);
        quits = std::make_unique<QSignalSpy>(controller.get(),
                                             &InstallerWinController::terminationRequested);
        LogCapture capture;
        if (events) controller->installAppleEvents();
        const bool ok = controller->setUp();
        log = capture.messages();
        return ok;
    }
    const Ui::InstallerWindow &ui() const { return controller->outlets(); }

    std::unique_ptr<InstallerWinController> controller;
    std::unique_ptr<QSignalSpy> quits;
    QStringList log;
};

// The exit code, -1 when the program did not end by itself in time; its
// standard error in errors, or to the descriptor errorsTo.
inline int runToEnd(QStringList words, const QProcessEnvironment &env, QString *errors,
                    int errorsTo = -1) {
    QProcess process;
    process.setProcessEnvironment(env);
    if (errorsTo >= 0)
        process.setChildProcessModifier([errorsTo] { dup2(errorsTo, STDERR_FILENO); });
    process.start(words.takeFirst(), words);
    const bool ended = process.waitForFinished(100000);
    if (!ended) process.kill();
    process.waitForFinished();
    *errors = QString::fromLocal8Bit(process.readAllStandardError());
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

inline QString trash() { return qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files"; }

// Version 2.0 in folder/media, to go to folder/Applications; the tear-down
// ends what runs there and unlocks it all.
struct Road {
    void makeRoad(const QString &hint) {
        folder = TestEnvironment::makeTempDir(hint);
        source = TestBundle::makeRoadProduct(folder + "/media", "2.0");
        applications = folder + "/Applications";
        QDir().mkpath(applications);
        destination = applications + "/Product.app";
    }
    void tearDownRoad() const {
        TestBundle::stopProcessesAt(folder);
        QProcess::execute("chattr", {"-R", "-i", folder, trash()});
    }
    QStringList road() const { return {"-sourcePath", source, "-destinationPath", destination}; }

    QString folder, source, applications, destination;
};

inline QString readText(const QString &path) {
    return QString::fromUtf8(TestEnvironment::readFile(path));
}
inline QString logText(const QString &stateHome = qEnvironmentVariable("XDG_STATE_HOME")) {
    return readText(stateHome + "/VelmoraInstaller.log");
}

// A copy that comes back when asked to quit, as often as allowed: each copy
// starts the next before it ends, so the look right after the quit finds one.
struct ComingBack {
    ComingBack(const QString &bundle, int returns)
        : pid(TestBundle::start(TestBundle::executableOf(bundle),
                                {"--respawn", QString::number(returns)})) {}
    ~ComingBack() {
        kill(-pid, SIGKILL);  // all copies share one process group
        waitpid(pid, nullptr, 0);
    }
    const pid_t pid;
};

}  // namespace InstallerRun
