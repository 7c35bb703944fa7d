// Unattended runs end to end: the real installer with -unattended YES and no
// display at all, each exit status from a real cause.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <csignal>
#include <functional>
#include <memory>

#include "InstallerExitStatus.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

const QString kManualCopy =
    "\nTry installing Product manually by copying it to the Applications folder.";

class UnattendedTest : public testing::Test {
public:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("unattended");
        source = TestBundle::makeRoadProduct(folder + "/media", "2.0");
        destination = folder + "/Applications/Product.app";
        QDir().mkpath(folder + "/Applications");
        QDir().mkpath(trash());
    }
    void TearDown() override {
        if (helper > 0 && kill(-helper, SIGKILL) == 0) waitpid(helper, nullptr, 0);
        polkit.reset();
        TestBundle::stopProcessesAt(folder);
        QProcess::execute("chattr", {"-R", "-i", folder, trash()});
    }

    static QString trash() { return qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files"; }
    QStringList road() const { return {"-sourcePath", source, "-destinationPath", destination}; }

    // Runs the installer as root or as the unprivileged user; what it writes
    // lands in errors, unless its standard error goes to the descriptor given.
    int install(const QStringList &arguments, bool asUser = false, int errorsTo = -1) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) env.remove(name);
        QStringList words = QStringList{KV_INSTALLER_APP "/Contents/MacOS/Installer"} + arguments +
                            QStringList{"-unattended", "YES"};
        if (asUser) {
            // A home of the user's own, as the session's bus and folders are
            // root's; pkexec refuses a SHELL that is no login shell.
            const QString home = folder + "/user";
            QDir().mkpath(home);
            QProcess::execute("chown", {Relaunch::unprivilegedUser() + ":", home});
            for (const char *name :
                 {"XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "XDG_STATE_HOME", "XDG_DATA_HOME",
                  "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
                env.remove(name);
            words[0] =
                Relaunch::stage(KV_INSTALLER_APP, folder + "/bin") + "/Contents/MacOS/Installer";
            env.insert("LD_LIBRARY_PATH", Relaunch::libraryFolder());
            words = QStringList{"runuser", "-u",          Relaunch::unprivilegedUser(),
                                "--",      "env",         "-u",
                                "SHELL",   "HOME=" + home} +
                    words;
        }
        QProcess process;
        process.setProcessEnvironment(env);
        if (errorsTo >= 0)
            process.setChildProcessModifier([errorsTo] { dup2(errorsTo, STDERR_FILENO); });
        process.start(words.takeFirst(), words);
        const bool ended = process.waitForFinished(100000);
        if (!ended) process.kill();
        process.waitForFinished();
        errors = QString::fromLocal8Bit(process.readAllStandardError());
        return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QString folder, source, destination, errors;
    pid_t helper = 0;
    std::unique_ptr<Polkit> polkit;
};

TEST_F(UnattendedTest, ReplacesTheOldCopyLaunchesTheNewOneAndSaysSo) {
    TestBundle::makeRoadProduct(folder + "/Applications", "1.0");
    ASSERT_EQ(install(road()), 0) << qPrintable(errors);
    EXPECT_TRUE(errors.endsWith("] AppleEvents installed\nProduct was successfully installed.\n"))
        << qPrintable(errors);
    EXPECT_EQ(TestBundle::versionOf(destination), "2.0");
    EXPECT_EQ(TestBundle::versionOf(trash() + "/Product.app"), "1.0");
    EXPECT_GT(TestBundle::runningFrom(destination), 0);
    QFile log(qEnvironmentVariable("XDG_STATE_HOME") + "/VelmoraInstaller.log");
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().endsWith("] unattended run ends with status 0\n"));
}

// A script whose reader of standard error has gone still learns the status.
TEST_F(UnattendedTest, StatusHoldsWhenNobodyReadsStandardError) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(install({"-sourcePath"}, false, ends[1]), int(InstallerExitStatus::BadArguments));
    close(ends[1]);
}

// A run that cannot succeed: what it needs in place (the arrangement gives
// the run's arguments), its status and the end of its standard error.
struct Failure {
    const char *name;
    std::function<QStringList(UnattendedTest &)> arrange;
    InstallerExitStatus status;
    QString text;
    bool asUser = false;
};
void PrintTo(const Failure &failure, std::ostream *out) { *out << failure.name; }

const Failure kFailures[] = {
    {"OldCopyThatCannotBeTrashed",
     [](UnattendedTest &t) {
         TestBundle::makeRoadProduct(t.folder + "/Applications", "1.0");
         QProcess::execute("chattr", {"+i", t.trash()});
         return t.road();
     },
     InstallerExitStatus::CouldNotDeleteExistingCopy,
     "Could not delete existing copy." + kManualCopy},
    {"SourceHoldingAFifo",
     [](UnattendedTest &t) {
         mkfifo(QFile::encodeName(t.source + "/Contents/Resources/pipe").constData(), 0644);
         return t.road();
     },
     InstallerExitStatus::CopyFailed, "Installation failed." + kManualCopy},
    {"ProgramThatNeverQuits",
     [](UnattendedTest &t) {
         // Each copy starts the next before it ends: one always runs.
         const QString copy = TestBundle::make(t.folder + "/elsewhere", "Product",
                                               {{"CFBundleSignature", TestBundle::productCode()}});
         t.helper = TestBundle::start(TestBundle::executableOf(copy), {"--respawn", "1000"});
         return t.road();
     },
     InstallerExitStatus::RefusedToQuit,
     "Product cannot be running during the installation.\nQuit Product, then click \"Install\" "
     "again."},
    {"DestinationOnlyRootMayWriteAndAPolicyThatRefuses",
     [](UnattendedTest &t) {
         t.polkit = std::make_unique<Polkit>(false);
         QDir().mkpath(t.folder + "/RootOnly");
         return QStringList{"-sourcePath", t.source, "-destinationPath",
                            t.folder + "/RootOnly/Product.app"};
     },
     InstallerExitStatus::AuthorizationNotGiven, "Authorized copying failed." + kManualCopy, true},
    {"UnknownKey",
     [](UnattendedTest &t) {
         return t.road() + QStringList{"-destinationpath", "x"};
     },
     InstallerExitStatus::BadArguments, "unknown key -destinationpath"},
    {"KeyWithoutItsValue", [](UnattendedTest &t) { return t.road() + QStringList{"-productName"}; },
     InstallerExitStatus::BadArguments, "missing value for -productName"},
    {"NameLeftUnquoted",
     [](UnattendedTest &t) {
         return t.road() + QStringList{"-productName", "My", "Product"};
     },
     InstallerExitStatus::BadArguments, "more than one value for -productName"},
    {"WordBeforeAnyKey", [](UnattendedTest &t) { return QStringList{"now"} + t.road(); },
     InstallerExitStatus::BadArguments, "now follows no key"},
    {"NoSourceOutsideAnyProduct",
     [](UnattendedTest &t) {
         return QStringList{"-destinationPath", t.destination};
     },
     InstallerExitStatus::BadArguments, "missing source path"},
};

class UnattendedFailureTest : public UnattendedTest, public testing::WithParamInterface<Failure> {};

// Nothing at the destination changes.
TEST_P(UnattendedFailureTest, EndsWithItsStatusAndText) {
    const Failure &failure = GetParam();
    if (failure.asUser && !Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
    const QStringList arguments = failure.arrange(*this);
    if (polkit) {
        ASSERT_TRUE(polkit->ok()) << qPrintable(polkit->error());
    }
    const QString before = TestBundle::versionOf(destination);
    EXPECT_EQ(install(arguments, failure.asUser), int(failure.status)) << qPrintable(errors);
    EXPECT_TRUE(errors.endsWith(failure.text + "\n")) << qPrintable(errors);
    EXPECT_EQ(TestBundle::versionOf(destination), before);
}

INSTANTIATE_TEST_SUITE_P(Causes, UnattendedFailureTest, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure> &info) {
                             return std::string(info.param.name);
                         });

}  // namespace
