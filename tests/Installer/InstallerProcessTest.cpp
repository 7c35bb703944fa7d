// The real installer as a child process: started by a product or a user, with
// no display, unattended (each exit status from a real cause) and under Wayland.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <QTest>
#include <functional>

#include "Accessibility.h"
#include "InstallerExitStatus.h"
#include "InstallerRun.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "WaylandSession.h"

namespace {

using namespace InstallerRun;
using Status = InstallerExitStatus;

const QString kInstaller = QStringLiteral(KV_INSTALLER_APP "/Contents/MacOS/Installer");
const QString kManualCopy =
    "\nTry installing Product manually by copying it to the Applications folder.";

class UnattendedTest : public testing::Test, public Road {
public:
    void SetUp() override { makeRoad("process"); }
    void TearDown() override {
        refusing.reset();
        polkit.reset();
        // What the runs as the user launched: TestBundle sees only this user's processes.
        QProcess::execute("pkill", {"-KILL", "-u", Relaunch::unprivilegedUser(), "-f", folder});
        tearDownRoad();
    }

    QString log() const { return logText(folder + "/state"); }
    QProcessEnvironment environment(bool display = true) const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", folder + "/state");
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            if (!display) env.remove(name);
        return env;
    }
    // Whether the described arguments came while the installer still ran (it waits for the user).
    bool runUntilDescribed(const QStringList &arguments, int waitMs = 20000) {
        const qsizetype logStart = log().size();  // only what this run appends
        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(kInstaller, arguments);
        const bool seen = QTest::qWaitFor(
            [&] {
                const QString text = log().mid(logStart);
                return text.contains("] Updated arguments: {") && text.contains("\n}\n");
            },
            waitMs);
        const bool running = process.state() == QProcess::Running;
        process.terminate();
        process.waitForFinished(5000);
        errors = QString::fromUtf8(process.readAllStandardError());
        return seen && running;
    }
    // A folder only root may write, a source the user may read, and the policy's answer.
    QStringList onlyRoot(bool consent) {
        polkit = std::make_unique<Polkit>(consent);
        for (const QString &path : {folder, folder + "/media", folder + "/RootOnly"}) {
            QDir().mkpath(path);
            chmod(QFile::encodeName(path).constData(), 0755);
        }
        destination = folder + "/RootOnly/Product.app";
        return road();
    }
    // As the user: a home of their own, no SHELL (pkexec wants a login shell's).
    int install(const QStringList &arguments, bool asUser = false, int errorsTo = -1) {
        const QProcessEnvironment env = environment(false);
        QStringList words = QStringList{kInstaller} + arguments + QStringList{"-unattended", "YES"};
        if (asUser) {
            const QString user = Relaunch::unprivilegedUser(), home = folder + "/user";
            QDir().mkpath(home);
            QProcess::execute("chown", {"-R", user + ":", home});
            words[0] =
                Relaunch::stage(KV_INSTALLER_APP, folder + "/bin") + "/Contents/MacOS/Installer";
            const QString library = "LD_LIBRARY_PATH=" + Relaunch::libraryFolder();
            words = QStringList{"runuser", "-u", user,           "--",
                                "env",     "-i", "HOME=" + home, "PATH=" + env.value("PATH"),
                                library} +
                    words;
        }
        return runToEnd(words, env, &errors, errorsTo);
    }

    QString errors;  // or what the installer printed
    std::unique_ptr<ComingBack> refusing;
    std::unique_ptr<Polkit> polkit;
};
using StartupTest = UnattendedTest;

// The event handler is installed before the log decision: its line stays out.
TEST_F(StartupTest, LaunchedWithArgumentsAppendsTheDescriptionToTheLogFile) {
    const QStringList words = road() + QStringList{"-quitCode", "Kv6q"};
    ASSERT_TRUE(runUntilDescribed(words)) << qPrintable(errors);
    const QString only = "] AppleEvents installed\n";
    EXPECT_TRUE(errors.endsWith(only) && errors.count('\n') == 1) << qPrintable(errors);
    const QString text = log();
    EXPECT_TRUE(
        text.contains("] arguments: (\n    \"" + kInstaller + "\",\n    \"-sourcePath\",\n"))
        << qPrintable(text);
    EXPECT_TRUE(text.contains("    quitCode =     (\n        Kv6q,\n        " +
                              TestBundle::productCode() + "\n    );\n"));
    EXPECT_TRUE(text.contains("    destinationPath = \"" + destination + "\";"));
    ASSERT_TRUE(runUntilDescribed({"-sourcePath", source}));
    EXPECT_EQ(log().count("] Updated arguments: {"), 2);

    // A file where the log folder should be: nothing to wait for.
    QDir(folder + "/state").removeRecursively();
    TestEnvironment::writeFile(folder + "/state", "in the way");
    EXPECT_FALSE(runUntilDescribed(words, 1500));
    EXPECT_TRUE(errors.endsWith(only) && errors.count('\n') == 1) << qPrintable(errors);
}

TEST_F(StartupTest, WithoutADisplayTheInstallerSaysSoAndEnds) {
    EXPECT_EQ(runToEnd(QStringList{kInstaller} + road(), environment(false), &errors), 1);
    const QString line =
        "] No display to show the installer on: neither DISPLAY nor WAYLAND_DISPLAY is set\n";
    EXPECT_TRUE(errors.endsWith(line)) << qPrintable(errors);
    EXPECT_TRUE(log().endsWith(line)) << qPrintable(log());
}

// A script whose reader of standard error has gone still learns the status.
TEST_F(UnattendedTest, StatusHoldsWhenNobodyReadsStandardError) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(install({"-sourcePath"}, false, ends[1]), int(Status::BadArguments));
    close(ends[1]);
}

// What the run needs in place (arrange gives its arguments), its status and last words.
struct Cause {
    const char *name;
    std::function<QStringList(UnattendedTest &)> arrange;
    Status status;
    QString text;
    bool asUser = false;
};
void PrintTo(const Cause &cause, std::ostream *out) { *out << cause.name; }  // stable test names

using Args = QStringList;
// clang-format off
const Cause kCauses[] = {
    {"OldCopyIsTrashedAndTheNewOneLaunched", [](UnattendedTest &t) {
         TestBundle::makeRoadProduct(t.applications, "1.0");
         return t.road();
     }, Status::Installed, "] AppleEvents installed\nProduct was successfully installed."},
    // The system's applications folder is closed to the user: their own is chosen.
    {"NoDestinationGivenToTheUser", [](UnattendedTest &t) {
         t.applications = t.folder + "/user/Applications";
         t.destination = t.applications + "/Product.app";
         QDir().mkpath(t.applications);
         return Args{"-sourcePath", t.source};
     }, Status::Installed, "Product was successfully installed.", true},
    // pkexec runs train as root for the user: what it installs is root's.
    {"DestinationOnlyRootMayWriteAndAPolicyThatAgrees", [](UnattendedTest &t) {
         return t.onlyRoot(true); }, Status::Installed, "Product was successfully installed.", true},
    {"OldCopyThatCannotBeTrashed", [](UnattendedTest &t) {
         TestBundle::makeRoadProduct(t.applications, "1.0");
         QDir().mkpath(trash());
         QProcess::execute("chattr", {"+i", trash()});
         return t.road();
     }, Status::CouldNotDeleteExistingCopy, "Could not delete existing copy." + kManualCopy},
    {"SourceHoldingAFifo", [](UnattendedTest &t) {
         mkfifo(QFile::encodeName(t.source + "/Contents/Resources/pipe").constData(), 0644);
         return t.road();
     }, Status::CopyFailed, "Installation failed." + kManualCopy},
    {"ProgramThatNeverQuits", [](UnattendedTest &t) {
         t.refusing = std::make_unique<ComingBack>(TestBundle::make(t.folder + "/elsewhere",
             "Product", {{"CFBundleSignature", TestBundle::productCode()}}), 1000);
         return t.road();
     }, Status::RefusedToQuit, "Product cannot be running during the installation.\nQuit Product, "
                               "then click \"Install\" again."},
    {"DestinationOnlyRootMayWriteAndAPolicyThatRefuses", [](UnattendedTest &t) {
         return t.onlyRoot(false); }, Status::AuthorizationNotGiven,
     "Authorized copying failed." + kManualCopy, true},
    {"SystemTooOld", [](UnattendedTest &t) { return t.road() + Args{"-minSystemVersion", "99"}; },
     Status::SystemTooOld,
     "Product 2.0 cannot be installed on this computer because it requires Mac OS X 99 or newer."},
    {"UnknownKey", [](UnattendedTest &t) { return t.road() + Args{"-destinationpath", "x"}; },
     Status::BadArguments, "unknown key -destinationpath"},
};
// clang-format on

class UnattendedFailureTest : public UnattendedTest, public testing::WithParamInterface<Cause> {};

// A failed run leaves what was there; a good one keeps the old copy in the trash.
TEST_P(UnattendedFailureTest, EndsWithItsStatusAndText) {
    const Cause &cause = GetParam();
    if (cause.asUser && !Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
    const QStringList arguments = cause.arrange(*this);
    ASSERT_TRUE(!polkit || polkit->ok()) << qPrintable(polkit->error());
    const QString before = TestBundle::versionOf(destination);
    EXPECT_EQ(install(arguments, cause.asUser), int(cause.status)) << qPrintable(errors);
    EXPECT_TRUE(errors.endsWith(cause.text + "\n")) << qPrintable(errors);
    const bool installed = cause.status == Status::Installed;
    EXPECT_EQ(TestBundle::versionOf(destination), installed ? "2.0" : before);
    if (!installed) return;
    EXPECT_EQ(TestBundle::versionOf(trash() + "/Product.app"), before);
    const QString userLog = logText(folder + "/user/.local/state");
    if (cause.asUser && !polkit)
        EXPECT_TRUE(userLog.contains("] Can't write to /Applications, checking ~/Applications\n") &&
                    userLog.contains("] User applicationsDirectory: " + applications + "\n"));
    else
        EXPECT_EQ(QFileInfo(destination + "/Contents/MacOS/Product").ownerId(), 0u);
    if (cause.asUser) return;
    EXPECT_GT(TestBundle::runningFrom(destination), 0);
    EXPECT_TRUE(log().endsWith("] unattended run ends with status 0\n"));
}

INSTANTIATE_TEST_SUITE_P(Causes, UnattendedFailureTest, testing::ValuesIn(kCauses),
                         [](const testing::TestParamInfo<Cause> &info) {
                             return std::string(info.param.name);
                         });

using Clients = WaylandSession::Clients;

class WaylandTest : public UnattendedTest, public testing::WithParamInterface<Clients> {};

// Install is pressed over the accessibility bus: nothing can type into a headless compositor.
TEST_P(WaylandTest, RoadOfOneInstallation) {
    WaylandSession session;
    const QString error = session.start(GetParam());
    ASSERT_TRUE(error.isEmpty()) << qPrintable(error);
    // Another installer runs: the launched product must find the one that launched it.
    TestBundle::start(TestBundle::executableOf(
        TestBundle::make(folder + "/older", "Installer", {{"CFBundleSignature", "VlIn"}})));
    const auto client = session.clientScope();
    QProcessEnvironment env = environment();
    env.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    env.insert("KV_TEST_DONE_PID", "launcher");
    auto installer = std::make_unique<QProcess>();
    installer->setProcessEnvironment(env);
    installer->start(kInstaller, road() + QStringList{"-productName", "Product", "-version", "2.0",
                                                      "-productCode", TestBundle::productCode()});
    const auto pid = [&] { return installer->processId(); };  // 0 once it has ended
    const auto press = [&] { return !pid() || Accessibility::pressButton(pid(), "Install"); };
    ASSERT_TRUE(QTest::qWaitFor(press, 30000) && pid()) << qPrintable(log());
    // Only the launched version 2 sends this.
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return log().contains("received Done event (Product 2.0)"); }, 60000))
        << qPrintable(log());
    XSession::stop(installer);
}

INSTANTIATE_TEST_SUITE_P(Clients, WaylandTest, testing::Values(Clients::Native, Clients::XWayland),
                         [](const testing::TestParamInfo<Clients> &info) {
                             return info.param == Clients::Native ? "Native" : "XWayland";
                         });

}  // namespace
