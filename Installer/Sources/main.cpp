// The installer's entry point: hand the command line to the application and
// let the controller set everything up.
#include <QApplication>
#include <QFile>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "InstallFunction.h"
#include "InstallerWinController.h"
#include "KVBundle.h"
#include "KVLocalization.h"
#include "KVLog.h"
#include "KVUserDefaults.h"

int main(int argc, char **argv) {
    // The vector as started: the application object removes the words it
    // knows, and the controller must see every one.
    QStringList words;
    for (int i = 0; i < argc; ++i) words << QString::fromLocal8Bit(argv[i]);
    KVUserDefaults::setArgumentDomain(words);

    // Nobody could see the window nor click in it: say so on the terminal
    // and in the log, and end at once rather than wait for ever. An
    // unattended run shows no window and needs no display.
    const bool unattended = InstallerWinController::isUnattendedRequested();
    // A script's reader of standard error may be gone before the outcome is
    // written: the exit status must still be the run's, not a broken pipe's.
    if (unattended) std::signal(SIGPIPE, SIG_IGN);
    if (!unattended && !InstallerWinController::hasDisplay()) {
        const QString line = QStringLiteral(
            "No display to show the installer on: neither DISPLAY nor WAYLAND_DISPLAY is set");
        kvLog(line);
        if (InstallerWinController::isLaunchedWithArguments(words) &&
            std::freopen(QFile::encodeName(InstallerWinController::logFilePath()).constData(), "a+",
                         stderr))
            kvLog(line);
        return EXIT_FAILURE;
    }
    // The window of an unattended run is never shown: it lives in memory, on
    // Qt's offscreen platform. Named on Qt's command line, not in the
    // environment, which the launched product inherits.
    std::vector<char *> qtArgv(argv, argv + argc);
    char platformOption[] = "-platform", offscreen[] = "offscreen";
    if (unattended) qtArgv.insert(qtArgv.end(), {platformOption, offscreen});
    int qtArgc = int(qtArgv.size());
    qtArgv.push_back(nullptr);
    QApplication app(qtArgc, qtArgv.data());
    KVLocalization::installTranslations(KVBundle::mainBundle(), QStringLiteral("Installer"));

    // Lives as long as the process: an install run's worker thread uses it
    // until the very end.
    auto *controller = new InstallerWinController(words, KVBundle::mainBundle().bundlePath());
    if (unattended)
        controller->runUnattended();
    else
        controller->awakeFromNib();
    const int status = app.exec();
    // Quitting ends the program at once, also in the middle of a run: no
    // waiting for the worker, no teardown it could trip over. A copy in
    // progress is dropped; what is installed stays as it was.
    InstallApplicationCancel();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}
