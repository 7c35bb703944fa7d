// The installer's own time on the road of one installation: from the
// Install click to the success page, minus the waits the run prescribes
// (0.5 s after announcing the copy, 0.3 s after registering it) and minus
// the copy itself, timed alone on the same bundle in the same run.
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPushButton>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "BenchSupport.h"
#include "InstallerWinController.h"
#include "KVFileManager.h"
#include "KVPropertyList.h"

namespace {

constexpr double kPrescribedWaits = 0.5 + 0.3;

QString makeProduct(const QString &folder) {
    const QString bundle = folder + "/media/Product.app";
    QDir().mkpath(bundle + "/Contents/MacOS");
    QDir().mkpath(bundle + "/Contents/Resources");
    KVPropertyList::writeFile(QVariantMap{{"CFBundleName", "Product"},
                                          {"CFBundleExecutable", "Product"},
                                          {"CFBundleIdentifier", "org.velmora.bench.road"},
                                          {"CFBundleSignature", "BnRd"},
                                          {"CFBundleShortVersionString", "2.0"},
                                          {"CFBundleIconFile", "Product.png"}},
                              bundle + "/Contents/Info.plist", KVPropertyList::Format::Xml);
    // A real program that ends by itself at once.
    QFile::copy(QStringLiteral("/bin/true"), bundle + "/Contents/MacOS/Product");
    QImage icon(256, 256, QImage::Format_ARGB32);
    icon.fill(Qt::darkBlue);
    icon.save(bundle + "/Contents/Resources/Product.png");
    return bundle;
}

}  // namespace

int main(int argc, char **argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    // The run's log lines are not what is measured.
    if (!std::freopen("/dev/null", "w", stderr)) return 1;
    const int runs = argc > 1 ? std::atoi(argv[1]) : 10;
    std::vector<double> totals, copies, own;
    for (int i = 0; i < runs; ++i) {
        QTemporaryDir folder;
        const QString source = makeProduct(folder.path());
        QDir().mkpath(folder.path() + "/Applications");
        QElapsedTimer copyClock;
        copyClock.start();
        KVFileManager::copyItemAtPath(source, folder.path() + "/scratch.app");
        const double copy = double(copyClock.nsecsElapsed()) / 1e9;

        InstallerWinController controller(
            {"/x/Installer", "-sourcePath", source, "-destinationPath",
             folder.path() + "/Applications/Product.app"},
            KV_INSTALLER_APP);
        controller.setUp();
        QElapsedTimer clock;
        clock.start();
        controller.outlets().installButton->click();
        while (!controller.isFinished())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        const double total = double(clock.nsecsElapsed()) / 1e9;
        totals.push_back(total);
        copies.push_back(copy);
        own.push_back(total - kPrescribedWaits - copy);
    }
    std::printf(
        "install click to success page over %d runs (median): %.1f ms in all, %.1f ms "
        "prescribed waits, %.2f ms copy, %.1f ms the installer's own\n",
        runs, median(totals) * 1e3, kPrescribedWaits * 1e3, median(copies) * 1e3,
        median(own) * 1e3);
    return 0;
}
