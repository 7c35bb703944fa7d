#include <sys/ptrace.h>

#include <QMap>
#include <cstring>

#include "KVClassesTest.h"
#include "TestFiles.h"

using namespace KVUtilitiesPrivate;

namespace {
VersionLookup answering(QMap<OSType, uint32_t> answers) {
    return [answers](OSType selector, uint32_t &value) {
        value = answers.value(selector);
        return answers.contains(selector);
    };
}

bool noZombiesRemain() {
    return QTest::qWaitFor(
        [] {
            siginfo_t child{};
            return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 || !child.si_pid;
        },
        20000);
}
}  // namespace

TEST(KVUtilitiesTest, VersionsAndNumericTextsOrderByValue) {
    const QStringList ascending{"1.0p1", "1.0d1", "1.0a1", "1.0a9", "1.0b1", "1.0b10", "1.0f1",
                                "1.0",   "1.0.0", "1.0.1", "1.9",   "1.10",  "10.0"};
    for (qsizetype i = 0; i < ascending.size(); ++i) {
        for (qsizetype j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(KVUtilities::compareVersion(ascending[i], ascending[j]), (i > j) - (i < j))
                << qPrintable(ascending[i] + " " + ascending[j]);
    }
    EXPECT_EQ(KVUtilities::compareVersion("1.0B1", "1.0p1"), NSOrderedSame);
    EXPECT_EQ(numericCompare(u"a007", u"a7"), NSOrderedSame);
    EXPECT_EQ(numericCompare(u"99999999999999999999", u"100000000000000000000"),
              NSOrderedAscending);
    EXPECT_EQ(numericCompare(u"a", u"B", Qt::CaseInsensitive), NSOrderedAscending);
    EXPECT_EQ(KVUtilities::plainVersionOf("4.0.2b1 (512)"), "4.0.2");
}

TEST(KVUtilitiesTest, SystemVersionFromSelectorsOrTheBCDWord) {
    {
        LogCapture log;
        EXPECT_EQ(threePartVersion(answering({{kMajorSelector, 13}, {kBCDSelector, 0x1049}})), 13u);
        EXPECT_EQ(log.messages(), (QStringList{"cannot get minor version number",
                                               "cannot get bugfix version number"}));
    }
    EXPECT_EQ(systemVersionString(threePartVersion(
                  answering({{kMajorSelector, 13}, {kMinorSelector, 2}, {kBugFixSelector, 1}}))),
              "13.2.1");
    EXPECT_EQ(systemVersionString(packVersion(13, 0, 0)), "13.0");
    EXPECT_EQ(systemVersionString(threePartVersion(answering({{kBCDSelector, 0x1049}}))), "10.4.9");
    std::atomic<int> cache{0};
    EXPECT_EQ(cachedDecimalVersion(cache, answering({})), 0);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1049}})), 100409);
    EXPECT_EQ(cachedDecimalVersion(cache, answering({{kBCDSelector, 0x1130}})), 100409);
    uint32_t value = 0;
    EXPECT_TRUE(kernelReleaseLookup("5.15.153.1-generic", kBCDSelector, value) && value == 0x0599);
    EXPECT_FALSE(kernelReleaseLookup("6.1", kBugFixSelector, value));
}

// A configured threshold counts only from 100000 to 109999.
TEST(KVUtilitiesTest, SafeHTTPSDowngradesOnlyBelowTheThreshold) {
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    const QString url = "https://example.org/?b=https:", plain = "http://example.org/?b=https:";
    // clang-format off
    const std::tuple<int, int, bool> rows[] = {  // configured (0: none), system, downgraded
        {0, 101299, true}, {0, 101300, false}, {101000, 101200, false},
        {110000, 101300, false}, {99999, 101299, true}, {109999, 109998, true}};
    // clang-format on
    for (const auto &[configured, system, downgraded] : rows) {
        defaults.removeObjectForKey("httpsMinSys");
        if (configured) defaults.setObject(configured, "httpsMinSys");
        EXPECT_EQ(safeHTTPS(url, system), downgraded ? plain : url) << configured;
    }
    EXPECT_EQ(safeHTTPS("ftp://example.org", 90000), "ftp://example.org");
    EXPECT_EQ(KVUtilities::safeHTTPS(url), plain);  // 109999 still configured
    defaults.removeObjectForKey("httpsMinSys");
}

// Standard input is closed: the output file gets its number, yet stays the output.
TEST(KVUtilitiesScriptTest, ScriptsRunDirectlyWithTheirOutputOrAFailureText) {
    const QString folder = TestEnvironment::makeTempDir("scripts");
    const QString temporary = TestEnvironment::makeTempDir("script-output");
    const ScopedEnv temporaryFolder("TMPDIR", QFile::encodeName(temporary));
    const QString home = QDir::homePath(), odd = "-x 'q\" s.sh";
    const auto failed = [](const char *name, int error) {
        return QString("script %1 failed: %2").arg(name, QString::fromLocal8Bit(strerror(error)));
    };
    // Script (in the folder or "~/"), body (none: missing), parameters, time-out, result, log.
    // clang-format off
    const std::tuple<QString, QByteArray, std::optional<QStringList>, double, QString, QStringList> rows[] = {
        {"report.sh", "echo \"$# [$1] [$2]\"; echo to-errors >&2; pwd; cat", QStringList{"a b", "'\"$HOME;"},
         10, "2 [a b] ['\"$HOME;]\nto-errors\n" + home + "\n", {}},
        {"latin1.sh", "printf 'caf\\351\\n'", std::nullopt, 10, QString(),
         {"error getting result: The output is no UTF-8 text."}},
        // A character split between two pieces of the output read.
        {"split.sh", "printf xyz; yes 'é' | head -n 400000", std::nullopt, 10,
         "xyz" + QString("é\n").repeated(400000), {}},
        {"slow.sh", "echo started; exec sleep 30", QStringList{"x y"}, 0.3, "started\n",
         {"script timeout: slow.sh (\n    \"x y\"\n)"}},
        {"stubborn.sh", "trap '' TERM; echo stubborn; sleep 1; echo late", std::nullopt, 0.3, "stubborn\n",
         {"script timeout: stubborn.sh (null)"}},
        {odd, "echo \"ok $0\"", std::nullopt, 10, "ok " + folder + "/" + odd + "\n", {}},
        {"~/tilde.sh", "echo tilde", std::nullopt, 10, "tilde\n", {}},
        // A child left running does not hold the result back.
        {"parent.sh", "sleep 3 & echo left", std::nullopt, 10, "left\n", {}},
        {"nowhere.sh", {}, std::nullopt, 10, failed("nowhere.sh", ENOENT), {}},
        {"noline.sh", {}, std::nullopt, 10, failed("noline.sh", ENOEXEC), {}}};
    // clang-format on
    ASSERT_TRUE(TestFiles::makeFile(folder + "/noline.sh", "echo no interpreter\n", 0755));
    const QString previous = QDir::currentPath();
    QDir::setCurrent(folder);
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    for (const auto &[script, body, parameters, timeout, expected, logged] : rows) {
        const bool inHome = script.startsWith('~');
        const QString path = inHome ? home + script.mid(1) : folder + "/" + script;
        ASSERT_TRUE(body.isEmpty() || TestFiles::makeFile(path, "#!/bin/sh\n" + body + "\n", 0755));
        LogCapture log;
        const QString result = KVUtilities::runShellScript(inHome || script == odd ? script : path,
                                                           parameters, timeout);
        EXPECT_TRUE(result == expected && result.isNull() == expected.isNull())
            << qPrintable(script + ": " + result.left(100));
        EXPECT_EQ(log.messages(), logged) << qPrintable(script);
        const QStringList left =
            QDir(temporary).entryList({"KVScript.*"}, QDir::Files | QDir::Hidden);
        EXPECT_EQ(left.size(), expected.contains(" failed: ") ? 1 : 0) << qPrintable(script);
        for (const QString &file : left) QFile::remove(temporary + "/" + file);
    }
    dup2(input, STDIN_FILENO);
    close(input);
    QDir::setCurrent(previous);
    // The stubborn script ends a second later, reaped in the background.
    EXPECT_TRUE(noZombiesRemain());
}

TEST(KVUtilitiesScriptTest, ShellCommandsGiveTheirStandardOutputAsUtf8) {
    // clang-format off
    const std::pair<QString, QString> rows[] = {
        {"echo out; echo to-errors >&2", "out\n"}, {"true", ""},
        {"printf 'a\\000b'", QString::fromUtf8("a\0b", 3)}, {"yes é | head -n 500000", QString("é\n").repeated(500000)},
        {"printf 'caf\\351'", QString()}, {"printf '\\360\\237\\230'", QString()},
        // Closing its output ends the wait, though the command runs on.
        {"exec >&-; sleep 1", ""}};
    // clang-format on
    for (const auto &[command, expected] : rows) {
        const QString result = KVUtilities::shellCommandResult(command);
        EXPECT_TRUE(result == expected && result.isNull() == expected.isNull())
            << qPrintable(command);
    }
    EXPECT_TRUE(noZombiesRemain());
}

TEST(KVUtilitiesLaunchTest, DistributionDiskIsAMarkedRemovableVolume) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "/media is root's";
    const QString user = QString("kvtest-%1").arg(getpid());
    const QString media = "/media/" + user, runMedia = "/run/media/" + user;
    const QString disk = media + "/Disk", app = disk + "/App.app";
    // clang-format off
    const std::tuple<QString, QString, bool, bool> rows[] = {  // bundle, marker, disk, mode
        {app, disk + "/.launchlock", true, true}, {app, disk + "/launchlock", true, true},
        {runMedia + "/Disk/App.app", runMedia + "/Disk/.launchlock", true, true},
        {app, "", false, false}, {app, app + "/.launchlock", false, false},
        {"/var/tmp/x/App.app", "", false, true}, {"/private/AppTranslocation/1/App.app", "", false, true}};
    // clang-format on
    const bool hadRunMedia = QFileInfo::exists("/run/media");
    for (const auto &[bundle, marker, onDisk, mode] : rows) {
        ASSERT_TRUE(marker.isEmpty() || TestEnvironment::writeFile(marker, ""));
        EXPECT_EQ(KVUtilitiesPrivate::runningFromDistributionDisk(bundle), onDisk)
            << qPrintable(bundle);
        EXPECT_EQ(KVUtilitiesPrivate::installationMode(bundle), mode) << qPrintable(bundle);
        QDir(media).removeRecursively();
        QDir(runMedia).removeRecursively();
    }
    if (!hadRunMedia) QDir().rmdir("/run/media");
}

TEST(KVUtilitiesLaunchTest, AutostartUnitsAreToldFromTheControlGroup) {
    // clang-format off
    const std::pair<QByteArray, bool> rows[] = {
        {"0::/user.slice/user@1000.service/app.slice/app-gnome-Foo-1234@autostart.service\n", true},
        {"1:name=systemd:/user.slice/app-kv@autostart.service/sub\n0::/\n", true},
        {"0::/user.slice/user@1000.service/app.slice/app-org.kv.Foo-1234.scope\n", false},
        {"0::/user.slice/app-@autostart.service\n", false}, {"0::/app-x@autostart.service.d/y\n", false},
        {"", false}};
    // clang-format on
    for (const auto &[groups, autostarted] : rows)
        EXPECT_EQ(isAutostartControlGroup(groups), autostarted) << groups.constData();
}

TEST(KVUtilitiesEnvironmentTest, QuietHoursWindowInMinutesAfterMidnight) {
    // clang-format off
    const std::tuple<QVariant, QVariant, int, bool> cases[] = {  // start, end, now, inside
        {1320, 420, 23 * 60 + 30, true}, {1320, 420, 6 * 60 + 59, true},  // 22:00 to 07:00
        {1320, 420, 7 * 60, false}, {1320, 420, 1320, true}, {-60, 60, 23 * 60, true},
        {1440 + 60, 120, 60, true}, {600, 660, 600, true}, {600, 660, 660, false},
        {600, 600, 600, false}, {QStringLiteral("600"), QStringLiteral("660 minutes"), 630, true},
        {600.9, 660.9, 660, false}, {QByteArray("600"), 660, 630, false}};
    // clang-format on
    for (const auto &[start, end, now, inside] : cases)
        EXPECT_EQ(timeInRange(start, end, now), inside)
            << qPrintable(start.toString() + "-" + end.toString()) << " at " << now;
}

TEST(KVUtilitiesEnvironmentTest, TracerInTheProcessStatusAndDebuggingWhileTraced) {
    // clang-format off
    const std::pair<QByteArray, bool> cases[] = {
        {"Name:\tx\nTracerPid:\t0\nUid:\t0\n", false}, {"Name:\tx\nTracerPid:\t4242\nUid:\t0\n", true},
        {"Name:\tx\nTracerPid:\t77", true}, {"Name:\tx\nTracerPid:\tjunk\n", false}, {"Name:\tx\n", false}};
    // clang-format on
    for (const auto &[status, traced] : cases)
        EXPECT_EQ(statusShowsTracer(status), traced) << status.data();
    for (const bool traced : {false, true}) {  // a child this process traces sees a debugger
        const pid_t child = fork();
        if (child == 0)
            _exit(traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)
                      ? 3
                      : 1 + !KVUtilities::debugging());
        int status = 0;
        EXPECT_TRUE(child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                    WEXITSTATUS(status) == (traced ? 1 : 2))
            << traced;
    }
}
