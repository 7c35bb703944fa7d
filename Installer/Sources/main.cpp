// The installer's entry point: hand the command line to the application and
// let the controller set everything up.
#include <QApplication>
#include <QFile>
#include <cstdio>
#include <cstdlib>

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
    // and in the log, and end at once rather than wait for ever.
    if (!InstallerWinController::hasDisplay()) {
        const QString line = QStringLiteral(
            "No display to show the installer on: neither DISPLAY nor WAYLAND_DISPLAY is set");
        kvLog(line);
        if (InstallerWinController::isLaunchedWithArguments(words) &&
            std::freopen(QFile::encodeName(InstallerWinController::logFilePath()).constData(), "a+",
                         stderr))
            kvLog(line);
        return EXIT_FAILURE;
    }
    QApplication app(argc, argv);
    KVLocalization::installTranslations(KVBundle::mainBundle(), QStringLiteral("Installer"));

    // Lives as long as the process: an install run's worker thread uses it
    // until the very end.
    auto *controller = new InstallerWinController(words, KVBundle::mainBundle().bundlePath());
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
