// Unattended runs end to end: the real installer started with -unattended
// YES and no display at all, each exit status from a real cause.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTest>
#include <csignal>
#include <functional>
#include <memory>

#include "InstallerExitStatus.h"
#include "KVPropertyList.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

// This test process's own code: a run quits every process that has it, and
// other test processes run their products beside.
QString uniqueCode() {
    return "U" + QString::number(getpid() % (36 * 36 * 36), 36).rightJustified(3, '0');
}

const QString kManualCopy =
    "\nTry installing Product manually by copying it to the Applications folder.";

class UnattendedTest : public testing::Test {
public:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("unattended");
        source = product(folder + "/media", "2.0");
        applications = folder + "/Applications";
        QDir().mkpath(applications);
        destination = applications + "/Product.app";
    }
    void TearDown() override {
        if (helper > 0) {
            kill(-helper, SIGKILL);
            waitpid(helper, nullptr, 0);
        }
        polkit.reset();
        TestBundle::stopProcessesAt(folder);
        QProcess::execute("chattr", {"-R", "-i", folder});
        if (QFileInfo::exists(trash())) QProcess::execute("chattr", {"-i", trash()});
    }

    // A product whose program runs until asked to quit.
    static QString product(const QString &where, const QString &version) {
        const QString bundle =
            TestBundle::make(where, "Product",
                             {{"CFBundleSignature", uniqueCode()},
                              {"CFBundleName", "Product"},
                              {"CFBundleIdentifier", "org.velmora.test.unattended"},
                              {"CFBundleShortVersionString", version}},
                             false);
        const QString program = bundle + "/Contents/MacOS/Product";
        QFile::copy(KV_TEST_PRODUCT, program);
        QFile::setPermissions(program, QFile::permissions(KV_TEST_PRODUCT));
        return bundle;
    }
    static QString version(const QString &bundle) {
        return KVPropertyList::fromFile(bundle + "/Contents/Info.plist")
            .toMap()
            .value("CFBundleShortVersionString")
            .toString();
    }
    static QString trash() { return qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files"; }
    QStringList road() const { return {"-sourcePath", source, "-destinationPath", destination}; }

    // The installer's command line, unattended and without a display, as
    // this process's user or as the unprivileged one, and its environment.
    QStringList command(const QStringList &arguments, bool asUser, QProcessEnvironment *env) {
        *env = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env->remove(name);
        const QStringList unattended = arguments + QStringList{"-unattended", "YES"};
        if (!asUser) return QStringList{KV_INSTALLER_APP "/Contents/MacOS/Installer"} + unattended;
        // A home of the user's own: this session's bus and runtime folder
        // are root's. pkexec refuses a SHELL that is no login shell.
        const QString home = folder + "/user";
        QDir().mkpath(home + "/.local/state");
        QProcess::execute("chown", {"-R", Relaunch::unprivilegedUser() + ":", home});
        for (const char *name : {"XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "XDG_STATE_HOME",
                                 "XDG_DATA_HOME", "XDG_CONFIG_HOME"})
            env->remove(name);
        const QString staged = Relaunch::stage(KV_INSTALLER_APP, folder + "/bin");
        return QStringList{"runuser", "-u",           Relaunch::unprivilegedUser(),
                           "--",      "env",          "-u",
                           "SHELL",   "HOME=" + home, staged + "/Contents/MacOS/Installer"} +
               unattended;
    }
    // Runs the installer; what it writes lands in errors, or its standard
    // error goes to the descriptor given.
    int install(const QStringList &arguments, bool asUser = false, int errorsTo = -1) {
        QProcessEnvironment env;
        QStringList words = command(arguments, asUser, &env);
        QProcess process;
        process.setProcessEnvironment(env);
        if (errorsTo >= 0)
            process.setChildProcessModifier([errorsTo] { dup2(errorsTo, STDERR_FILENO); });
        process.start(words.takeFirst(), words);
        return finish(process);
    }
    int finish(QProcess &process) {
        const bool ended = process.waitForFinished(100000);
        if (!ended) process.kill();
        process.waitForFinished();
        errors += QString::fromLocal8Bit(process.readAll() + process.readAllStandardError());
        return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    static QString logFile() {
        QFile file(qEnvironmentVariable("XDG_STATE_HOME") + "/VelmoraInstaller.log");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    QString folder, source, applications, destination, errors;
    pid_t helper = 0;
    std::unique_ptr<Polkit> polkit;
};

// The road of one installation, with nobody at the machine.
TEST_F(UnattendedTest, ReplacesTheOldCopyLaunchesTheNewOneAndSaysSo) {
    product(applications, "1.0");
    ASSERT_EQ(install(road()), 0) << qPrintable(errors);
    EXPECT_TRUE(errors.endsWith("] AppleEvents installed\nProduct was successfully installed.\n"))
        << qPrintable(errors);
    EXPECT_EQ(version(destination), "2.0");
    EXPECT_EQ(version(trash() + "/Product.app"), "1.0");
    EXPECT_GT(TestBundle::runningFrom(destination), 0);
    EXPECT_TRUE(logFile().contains("] launched immediately: 1\n")) << qPrintable(logFile());
    EXPECT_TRUE(logFile().endsWith("] unattended run ends with status 0\n"));
}

// On a terminal pkexec's own text agent asks there; a wrong password ends
// the run as a refusal.
TEST_F(UnattendedTest, OnATerminalThePasswordIsAskedForThere) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
    Polkit polkit("AUTH_ADMIN");
    ASSERT_TRUE(polkit.ok()) << qPrintable(polkit.error());
    QDir().mkpath(folder + "/RootOnly");
    QProcessEnvironment env;
    QStringList words = command(
        {"-sourcePath", source, "-destinationPath", folder + "/RootOnly/Product.app"}, true, &env);
    for (QString &word : words) word = "'" + word + "'";
    QProcess terminal;
    terminal.setProcessEnvironment(env);
    terminal.start("script", {"-qfec", words.join(' '), "/dev/null"});
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            errors += QString::fromLocal8Bit(terminal.readAll());
            return errors.contains("Password: ");
        },
        60000))
        << qPrintable(errors);
    terminal.write("wrong\n");
    EXPECT_EQ(finish(terminal), int(InstallerExitStatus::AuthorizationNotGiven));
    EXPECT_TRUE(errors.remove('\r').endsWith("Authorized copying failed." + kManualCopy + "\n"))
        << qPrintable(errors);
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
// the run's arguments), its status, and the end of its standard error
// ("<folder>" stands for the test's folder).
struct Failure {
    const char *name;
    std::function<QStringList(UnattendedTest &)> arrange;
    InstallerExitStatus status;
    QString text;
    bool asUser = false;
};

const Failure kFailures[] = {
    {"OldCopyThatCannotBeTrashed",
     [](UnattendedTest &t) {
         t.product(t.applications, "1.0");
         QDir().mkpath(t.trash());
         QProcess::execute("chattr", {"+i", t.trash()});
         return t.road();
     },
     InstallerExitStatus::CouldNotDeleteExistingCopy,
     "Could not delete existing copy." + kManualCopy},
    {"SourceWithAFileTheUserCannotRead",
     [](UnattendedTest &t) {
         const QString secret = t.source + "/Contents/Resources/secret";
         TestEnvironment::writeFile(secret, "root's");
         QFile::setPermissions(secret, {});
         QProcess::execute("chown", {Relaunch::unprivilegedUser() + ":", t.applications});
         return t.road();
     },
     InstallerExitStatus::CopyFailed, "Installation failed." + kManualCopy, true},
    {"ProgramThatNeverQuits",
     [](UnattendedTest &t) {
         const QString other = TestBundle::make(t.folder + "/elsewhere", "Helper",
                                                {{"CFBundleSignature", uniqueCode()}});
         // Each copy starts the next before it ends: one always runs.
         t.helper = TestBundle::start(TestBundle::executableOf(other), {"--respawn", "1000"});
         return t.road();
     },
     InstallerExitStatus::RefusedToQuit,
     "Helper cannot be running during the installation.\nQuit Helper, then click \"Install\" "
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
         return QStringList{"-sourcePath", t.source, "-destinationpath", t.destination};
     },
     InstallerExitStatus::BadArguments, "unknown key -destinationpath"},
    {"KeyWithoutItsValue",
     [](UnattendedTest &t) {
         return QStringList{"-destinationPath", t.destination, "-sourcePath"};
     },
     InstallerExitStatus::BadArguments, "missing value for -sourcePath"},
    {"NameWithASpaceLeftUnquoted",
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
    {"SourceThatIsNotThere",
     [](UnattendedTest &t) {
         return QStringList{"-sourcePath", t.folder + "/gone/Product.app", "-productCode", "Kv6a"};
     },
     InstallerExitStatus::BadArguments, "nothing to install at <folder>/gone/Product.app"},
    {"SourceWithoutASignature",
     [](UnattendedTest &t) {
         return QStringList{"-sourcePath",
                            TestBundle::make(t.folder + "/media", "Plain", {}, false)};
     },
     InstallerExitStatus::BadArguments, "missing product signature"},
};

void PrintTo(const Failure &failure, std::ostream *out) { *out << failure.name; }

class UnattendedFailureTest : public UnattendedTest, public testing::WithParamInterface<Failure> {};

// Nothing at the destination changes, and the window's text says why.
TEST_P(UnattendedFailureTest, EndsWithItsStatusAndText) {
    const Failure &failure = GetParam();
    if (failure.asUser && !Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
    const QStringList arguments = failure.arrange(*this);
    if (polkit) {
        ASSERT_TRUE(polkit->ok()) << qPrintable(polkit->error());
    }
    const QString target = arguments.value(arguments.indexOf("-destinationPath") + 1);
    const QString before = version(target);
    EXPECT_EQ(install(arguments, failure.asUser), int(failure.status)) << qPrintable(errors);
    EXPECT_TRUE(errors.endsWith(QString(failure.text).replace("<folder>", folder) + "\n"))
        << qPrintable(errors);
    EXPECT_EQ(version(target), before);
}

INSTANTIATE_TEST_SUITE_P(Causes, UnattendedFailureTest, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure> &info) {
                             return std::string(info.param.name);
                         });

}  // namespace
