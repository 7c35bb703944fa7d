// Unattended runs end to end: the real installer with -unattended YES and no
// display at all, each exit status from a real cause.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <functional>

#include "InstallerExitStatus.h"
#include "InstallerRun.h"
#include "Polkit.h"
#include "Relaunch.h"

namespace {

using namespace InstallerRun;
using Status = InstallerExitStatus;

const QString kManualCopy =
    "\nTry installing Product manually by copying it to the Applications folder.";

class UnattendedTest : public testing::Test, public Road {
public:
    void SetUp() override { makeRoad("unattended"); }
    void TearDown() override {
        refusing.reset();
        polkit.reset();
        tearDownRoad();
    }

    QStringList road() const { return {"-sourcePath", source, "-destinationPath", destination}; }
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
    // As the user: a home of their own (the session's is root's); pkexec wants a login SHELL.
    int install(const QStringList &arguments, bool asUser = false, int errorsTo = -1) {
        QProcessEnvironment env = withoutDisplay();
        QStringList words = QStringList{KV_INSTALLER_APP "/Contents/MacOS/Installer"} + arguments +
                            QStringList{"-unattended", "YES"};
        if (asUser) {
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
        return runToEnd(words, env, &errors, errorsTo);
    }

    QString errors;
    std::unique_ptr<ComingBack> refusing;
    std::unique_ptr<Polkit> polkit;
};

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
void PrintTo(const Cause &cause, std::ostream *out) { *out << cause.name; }

std::function<QStringList(UnattendedTest &)> roadWith(const QStringList &before,
                                                      const QStringList &after = {}) {
    return [=](UnattendedTest &t) { return before + t.road() + after; };
}

// clang-format off
const Cause kCauses[] = {
    {"OldCopyIsTrashedAndTheNewOneLaunched", [](UnattendedTest &t) {
         TestBundle::makeRoadProduct(t.applications, "1.0");
         return t.road();
     }, Status::Installed, "] AppleEvents installed\nProduct was successfully installed."},
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
    {"SystemTooOld", roadWith({}, {"-minSystemVersion", "99"}), Status::SystemTooOld,
     "Product 2.0 cannot be installed on this computer because it requires Mac OS X 99 or newer."},
    {"UnknownKey", roadWith({}, {"-destinationpath", "x"}), Status::BadArguments,
     "unknown key -destinationpath"},
    {"NameLeftUnquoted", roadWith({}, {"-productName", "My", "Product"}), Status::BadArguments,
     "more than one value for -productName"},
    {"NoSourceOutsideAnyProduct", [](UnattendedTest &t) { return t.road().mid(2); },
     Status::BadArguments, "missing source path"},
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
    EXPECT_EQ(QFileInfo(destination + "/Contents/MacOS/Product").ownerId(), 0u);
    if (cause.asUser) return;
    EXPECT_GT(TestBundle::runningFrom(destination), 0);
    EXPECT_TRUE(logText().endsWith("] unattended run ends with status 0\n"));
}

INSTANTIATE_TEST_SUITE_P(Causes, UnattendedFailureTest, testing::ValuesIn(kCauses),
                         [](const testing::TestParamInfo<Cause> &info) {
                             return std::string(info.param.name);
                         });

}  // namespace
