#include <QDateTime>
#include <QFileInfo>
#include <QRegularExpression>
#include <csignal>

#include "KVClassesTest.h"

namespace {

QString canonical(const QString &path) { return QFileInfo(path).canonicalFilePath(); }

class KVProcessTest : public testing::Test {
protected:
    void TearDown() override {
        for (pid_t pid : children) TestBundle::stop(pid);
    }
    KVProcessRef launch(const QString &program, const QStringList &arguments = {}) {
        const pid_t pid = TestBundle::start(program, arguments);
        if (pid > 0) children << pid;
        return pid > 0 ? KVProcess::processWithPID(pid) : nullptr;
    }
    KVProcessRef launchBundle(const QString &name, const QVariantMap &info = {},
                              const QStringList &arguments = {}) {
        bundle = TestBundle::make(TestEnvironment::makeTempDir(name), name, info);
        return launch(TestBundle::executableOf(bundle), arguments);
    }

    QString bundle;  // of the last launchBundle
    QList<pid_t> children;
};

// The code is this program's own, so test programs side by side never find
// each other's children.
TEST_F(KVProcessTest, LookupsShareOneRecordAndMoveItToTheCacheFront) {
    const QString code = QString::number(getpid() % 10000).rightJustified(4, '0');
    const QString identifier = "org.velmora.proctest." + code;
    const KVProcessRef process =
        launchBundle("Twice", {{"CFBundleSignature", code}, {"CFBundleIdentifier", identifier}});
    ASSERT_TRUE(process);
    KVProcess::processWithPID(getpid());  // puts another record in front
    EXPECT_EQ(KVProcess::processWithSignatureString(code), process);
    EXPECT_EQ(KVProcess::cachedProcesses().value(0), process);
    EXPECT_EQ(KVProcess::processWithIdentifier(identifier), process);
    // A code of another length converts to 0, which no process has.
    EXPECT_FALSE(KVProcess::processWithIdentifier(identifier.chopped(1)) ||
                 KVProcess::processWithSignatureString(code.left(3)) ||
                 KVProcess::processWithPID(0) || KVProcess::processWithPID(-1));
    EXPECT_EQ(KVProcess::currentProcess(), KVProcess::processWithPID(getpid()));
}

// A record names a pid and a start time, against pid reuse.
TEST_F(KVProcessTest, ARecordNeverStandsForAnotherProcess) {
    const KVProcessRef ended = launch(KV_TEST_CHILD);
    ASSERT_TRUE(ended);
    const pid_t pid = ended->unixPID();
    kill(pid, SIGKILL);
    siginfo_t status{};
    ASSERT_EQ(waitid(P_PID, id_t(pid), &status, WEXITED | WNOWAIT), 0);  // a zombie now
    EXPECT_EQ(KVProcess::processWithPID(pid), nullptr);
    EXPECT_FALSE(ended->isStillRunning() || ended->unixPID());
    const KVProcessRef later = launch(KV_TEST_CHILD);
    ASSERT_TRUE(later);
    EXPECT_FALSE(later == ended || ended->isEqual(later));
    const KVProcessRef self = KVProcess::processWithPID(getpid());
    ProcessSerialNumber reused = self->serialNumber();
    reused.highLongOfPSN += 1;
    const KVProcessRef other = KVProcess::processWithSerialNumber(reused);
    ASSERT_TRUE(other);
    EXPECT_FALSE(other == self || self->isEqual(other) || other->isStillRunning());
    // Two dead records side by side: removing one must not skip the next.
    const KVProcessRef dead = launch(KV_TEST_CHILD);
    ASSERT_TRUE(dead);
    TestBundle::stop(children.takeLast());
    KVProcess::cleanupCache();
    const QList<KVProcessRef> cached = KVProcess::cachedProcesses();
    EXPECT_FALSE(cached.contains(ended) || cached.contains(dead) || cached.contains(other));
    EXPECT_TRUE(cached.contains(later) && cached.contains(self));
}

TEST_F(KVProcessTest, NamesAndCodesComeFromTheInfoPlistElseFromTheExecutable) {
    const KVProcessRef writer =
        launchBundle("Writer", {{"CFBundleName", "Velmora Writer"},
                                {"CFBundleDisplayName", "Writer Pro"},
                                {"CFBundleSignature", "WrTr"},
                                {"CFBundleIdentifier", "org.velmora.hashcheck"},
                                {"CFBundleShortVersionString", "1.2"}});
    ASSERT_TRUE(writer);
    EXPECT_EQ(writer->displayName(), "Writer Pro");
    EXPECT_EQ(writer->hashString(), "4fc2a1c6fd0284bcf31d202eb0b99860");  // id:org.velmora...
    EXPECT_EQ(writer->description(), "Process \"Velmora Writer\" (WrTr) 1.2");
    EXPECT_EQ(writer->detailedDescription(), "Velmora Writer V1.2 (WrTr/org.velmora.hashcheck)");
    const KVProcessRef tool =
        launchBundle("Tool", {{"CFBundleExecutable", "tool-bin"}, {"CFBundleSignature", "TOOLS"}});
    ASSERT_TRUE(tool);
    EXPECT_EQ(tool->hashStringSource(), "name:tool-bin");
    const QString broken = TestBundle::make(TestEnvironment::makeTempDir("broken"), "Broken");
    ASSERT_TRUE(TestEnvironment::writeFile(broken + "/Contents/Info.plist", "\x89garbage<plist"));
    const KVProcessRef process = launch(broken + "/Contents/MacOS/Broken");
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name() + process->signatureString() + process->path(),
              "Broken????" + canonical(broken));
    // The system then shows the executable's path with " (deleted)".
    const KVProcessRef replaced = launchBundle("Replaced");
    ASSERT_TRUE(replaced && QFile::remove(TestBundle::executableOf(bundle)));
    EXPECT_EQ(replaced->name() + replaced->path(), "Replaced" + canonical(bundle));
}

// A short version without a dot is taken for a build number.
TEST_F(KVProcessTest, VersionPlatformAndBackgroundComeFromTheInfoPlist) {
    // clang-format off
    const std::tuple<QString, QString, bool, QVariantMap> rows[] = {
        {"412", "Carbon", false, {{"CFBundleShortVersionString", "2"}, {"CFBundleVersion", "412"}}},
        {"1.0", "Cocoa", true, {{"NSPrincipalClass", "NSApplication"}, {"LSUIElement", "YES"}}},
        {"1.0", "Carbon", true, {{"CFBundleVersion", 412}, {"NSPrincipalClass", 7}, {"LSUIElement", 1}}},
        {"1.0", "Java", true, {{"CFBundleIdentifier", "org.velmora.java.Run"}, {"LSBackgroundOnly", true}}},
        {"1.0", "Carbon", false, {{"LSBackgroundOnly", "0"}, {"LSUIElement", 0}}}};
    // clang-format on
    for (const auto &[version, platform, backgroundOnly, info] : rows) {
        const KVProcessRef process = launchBundle("Probe", info);
        ASSERT_TRUE(process);
        EXPECT_EQ(process->version() + " " + process->platform(), version + " " + platform);
        EXPECT_EQ(process->isBackgroundOnly(), backgroundOnly) << qPrintable(platform);
    }
    const KVProcessRef process =
        launchBundle("Versioned", {{"CFBundleShortVersionString", "2.10.0"}});
    ASSERT_TRUE(process);
    for (const char *older : {"2.9", "2.10.0.0"}) EXPECT_TRUE(process->isAtLeastVersion(older));
    for (const char *newer : {"2.10.1", "10"}) EXPECT_FALSE(process->isAtLeastVersion(newer));
}

TEST_F(KVProcessTest, QuitTerminatesFirstAndKillsAfterTheTimeout) {
    const KVProcessRef polite = launchBundle("Polite");
    const KVProcessRef stubborn = launchBundle("Stubborn", {}, {"--ignore-term"});
    ASSERT_TRUE(polite && stubborn);
    LogCapture log;
    polite->quit();  // no fallback event after a success
    EXPECT_TRUE(stubborn->quitRunningApplicationWithTimeout(0.2f));
    static const QRegularExpression numbers("\\d+\\.\\d{3}s \\(\\d+ attempts\\)");
    EXPECT_EQ(log.messages().replaceInStrings(numbers, "Ts (N attempts)"),
              (QStringList{"quit Polite: terminated after Ts (N attempts)",
                           "force-quit Stubborn: terminated after Ts (N attempts)"}));
    EXPECT_FALSE(polite->isStillRunning());
    const pid_t pid = children.takeLast();
    int status = 0;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) &&
                WTERMSIG(status) == SIGKILL);
}

TEST_F(KVProcessTest, TimesComeFromTheSystemAndTheDiagnosticsListIsSorted) {
    const QDateTime before = QDateTime::currentDateTime().addSecs(-2);
    const KVProcessRef zetaFore = launchBundle("Zeta fore");
    ASSERT_TRUE(zetaFore);
    EXPECT_GE(zetaFore->launchDate(), before);
    EXPECT_EQ(proc_cpu_time(999999999) + proc_start_time(999999999), 0.0);
    launchBundle("alpha fore");
    launchBundle("Agent", {{"LSUIElement", true}});
    const QString report = KVProcess::processListForDiagnosticsReport();
    const qsizetype background = report.indexOf("\n\nBackground processes:\n");
    EXPECT_TRUE(report.startsWith("Foreground processes:\n") && report.endsWith('\n'));
    const qsizetype alpha = report.indexOf("alpha fore V1.0");
    const qsizetype zeta = report.indexOf("Zeta fore V1.0");
    EXPECT_TRUE(alpha > 0 && alpha < zeta && zeta < background) << qPrintable(report);
    EXPECT_GT(report.indexOf("Agent V1.0"), background);
}

}  // namespace
