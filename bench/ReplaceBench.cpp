// Replacing an installed product: how long the destination holds no product
// while a bundle of 20,000 files and 1 GiB replaces the one there (a second
// thread looks at the destination without pause), and, in a run of its own
// without that thread, the whole install's time beside "cp -a" of the same
// bundle. Arguments: runs (default 2), files, megabytes.
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "InstallFunction.h"

namespace {
QString makeBundle(const QString &path, int files, qint64 megabytes) {
    QDir().mkpath(path + "/Contents/Resources");
    QFile plist(path + "/Contents/Info.plist");
    if (!plist.open(QIODevice::WriteOnly) || plist.write("<plist/>") < 0) return {};
    const qint64 size = megabytes * 1024 * 1024 / files;
    const QByteArray bytes(size, 'x');
    for (int i = 0; i < files; ++i) {
        const QString folder = path + QString("/Contents/Resources/%1").arg(i / 500);
        if (i % 500 == 0) QDir().mkpath(folder);
        QFile file(folder + QString("/%1").arg(i));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != size) return {};
    }
    return path;
}
}  // namespace

int main(int argc, char **argv) {
    const int runs = argc > 1 ? std::atoi(argv[1]) : 2;
    const int files = argc > 2 ? std::atoi(argv[2]) : 20000;
    const qint64 megabytes = argc > 3 ? std::atoll(argv[3]) : 1024;
    QTemporaryDir folder(QDir::currentPath() + "/replace-bench-XXXXXX");
    const QString source = makeBundle(folder.path() + "/Volume/Product.app", files, megabytes);
    if (source.isNull()) return 1;
    const QString destination = folder.path() + "/Applications/Product.app";
    QDir().mkpath(folder.path() + "/Applications");
    std::vector<double> absent, installs, copies;
    for (int run = 0; run < runs; ++run) {
        // The longest stretch between the first and last look that found no product.
        makeBundle(destination, 10, 1);
        std::atomic<bool> done{false};
        int64_t firstMissing = 0, lastMissing = 0;
        std::thread watcher([&] {
            const QByteArray path = QFile::encodeName(destination);
            struct stat status;
            while (!done) {
                const int64_t now = nanoseconds();
                if (lstat(path.constData(), &status) != 0) {
                    if (!firstMissing) firstMissing = now;
                    lastMissing = now;
                }
            }
        });
        const int watched = InstallApplication(source, destination, QString());
        done = true;
        watcher.join();
        absent.push_back(firstMissing ? double(lastMissing - firstMissing) / 1e6 : 0);

        const int64_t start = nanoseconds();
        const int result = InstallApplication(source, destination, QString());
        installs.push_back(double(nanoseconds() - start) / 1e9);
        if (watched != 0 || result != 0) return 2;
        const QString copy = folder.path() + "/cp-copy";
        const int64_t copyStart = nanoseconds();
        QProcess::execute("cp", {"-a", source, copy});
        copies.push_back(double(nanoseconds() - copyStart) / 1e9);
        QDir(copy).removeRecursively();
        QDir(QDir::homePath() + "/.local/share/Trash").removeRecursively();
    }
    std::printf(
        "replace %d files, %lld MiB: product absent %.3f ms (median of %d), install %.2f s, "
        "cp -a %.2f s, ratio %.3f\n",
        files, megabytes, median(absent), runs, median(installs), median(copies),
        median(installs) / median(copies));
    return 0;
}
