// Start-up to first paint: the installer's whole start-up as its main runs it
// (event handler on the session bus, log redirection, the window set up on a
// demo product with a read-me and an icon) against a bare Qt window, each in a fresh
// process, alternating, on the same platform. The parent notes the monotonic
// clock before it starts a child; the child prints the clock at its first
// paint and its peak resident memory.
//   startup_bench [runs]            the comparison
//   startup_bench --child bare|installer <product folder>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "BareWindow.h"
#include "BenchSupport.h"
#include "InstallerWinController.h"
#include "InstallerWindow.h"
#include "KVBundle.h"
#include "KVLocalization.h"
#include "KVPropertyList.h"

namespace {

// The parent's pipe, kept aside: the installer sends both standard streams
// to its log file when it starts with arguments.
int reportChannel = -1;

void report() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    dprintf(reportChannel, "%lld %ld\n", static_cast<long long>(nanoseconds()), usage.ru_maxrss);
    std::_Exit(0);
}

int child(int argc, char **argv) {
    reportChannel = dup(STDOUT_FILENO);
    QApplication app(argc, argv);
    const QString mode = QString::fromLocal8Bit(argv[2]);
    if (mode == QLatin1String("bare")) {
        auto *window = new BareWindow;
        QObject::connect(window, &BareWindow::firstPaint, report);
        window->show();
        return app.exec();
    }
    const QString folder = QString::fromLocal8Bit(argv[3]);
    KVLocalization::installTranslations(*KVBundle::bundleWithPath(KV_INSTALLER_APP),
                                        QStringLiteral("Installer"));
    auto *controller = new InstallerWinController(
        {"/x/Installer", "-sourcePath", folder + "/Product.app", "-readMePath",
         folder + "/ReadMe.md", "-destinationPath", folder + "/Applications/Product.app"},
        KV_INSTALLER_APP);
    QObject::connect(controller->window(), &InstallerWindow::firstPaint, report);
    controller->awakeFromNib();
    return app.exec();
}

// A demo product with a read-me and an icon.
void makeProduct(const QString &folder) {
    QDir().mkpath(folder + "/Product.app/Contents/Resources");
    QDir().mkpath(folder + "/Applications");
    KVPropertyList::writeFile(QVariantMap{{"CFBundleName", "Product"},
                                          {"CFBundleSignature", "BnPr"},
                                          {"CFBundleShortVersionString", "2.0"},
                                          {"CFBundleIconFile", "Product.png"}},
                              folder + "/Product.app/Contents/Info.plist",
                              KVPropertyList::Format::Xml);
    QImage icon(256, 256, QImage::Format_ARGB32);
    icon.fill(QColor(47, 111, 208));
    icon.save(folder + "/Product.app/Contents/Resources/Product.png");
    QFile readMe(folder + "/ReadMe.md");
    readMe.open(QIODevice::WriteOnly);
    readMe.write("# Product\n\nRead **this** first.\n");
}

struct Sample {
    double milliseconds;
    long peakKilobytes;
};

Sample measure(const QString &mode, const QString &folder) {
    QProcess process;
    const qint64 start = nanoseconds();
    process.start(QCoreApplication::applicationFilePath(), {"--child", mode, folder});
    process.waitForFinished(30000);
    const QList<QByteArray> words = process.readAllStandardOutput().trimmed().split(' ');
    if (words.size() != 2) return {-1, 0};
    return {double(words[0].toLongLong() - start) / 1e6, words[1].toLong()};
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 3 && QByteArray(argv[1]) == "--child") return child(argc, argv);
    QCoreApplication app(argc, argv);
    QTemporaryDir folder;
    makeProduct(folder.path());
    const int runs = argc > 1 ? std::atoi(argv[1]) : 21;
    std::vector<double> bare, installer;
    long bareMemory = 0, installerMemory = 0;
    for (int i = 0; i < runs; ++i) {
        const Sample b = measure("bare", folder.path());
        const Sample s = measure("installer", folder.path());
        if (b.milliseconds < 0 || s.milliseconds < 0) {
            std::fprintf(stderr, "a child did not report its first paint\n");
            return 1;
        }
        bare.push_back(b.milliseconds);
        installer.push_back(s.milliseconds);
        bareMemory = std::max(bareMemory, b.peakKilobytes);
        installerMemory = std::max(installerMemory, s.peakKilobytes);
    }
    const double b = median(bare), s = median(installer);
    std::printf(
        "start to first paint over %d runs (median): bare window %.1f ms, installer %.1f ms "
        "= %.2fx\n",
        runs, b, s, s / b);
    // The fastest start is the one least disturbed by the rest of the machine.
    const double bFast = *std::min_element(bare.begin(), bare.end());
    const double sFast = *std::min_element(installer.begin(), installer.end());
    std::printf("fastest: bare window %.1f ms, installer %.1f ms = %.2fx\n", bFast, sFast,
                sFast / bFast);
    std::printf("peak memory: bare window %ld KiB, installer %ld KiB\n", bareMemory,
                installerMemory);
    return 0;
}
