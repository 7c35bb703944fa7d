#include <QDeadlineTimer>
#include <QMap>
#include <cstring>

#include "KVClassesTest.h"
#include "TestFiles.h"

using namespace KVUtilitiesPrivate;

namespace {
VersionLookup answering(QMap<OSType, uint32_t> answers) {
    return [answers](OSType selector, uint32_t &value) {
        if (!answers.contains(selector)) return false;
        value = answers.value(selector);
        return true;
    };
}

constexpr int kTimeoutMs = 20000;  // a loaded machine may be slow

bool noZombiesRemain() {
    return QTest::qWaitFor(
        [] {
            siginfo_t child{};
            return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 || !child.si_pid;
        },
        kTimeoutMs);
}

QStringList scriptFilesIn(const QString &folder) {
    return QDir(folder).entryList({"KVScript.*"}, QDir::Files | QDir::Hidden);
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
    // The script (in the folder, or "~/..."), its body (none: no such file),
    // parameters, time-out, result and log.
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
        const QStringList left = scriptFilesIn(temporary);
        EXPECT_EQ(left.size(), expected.contains(" failed: ") ? 1 : 0) << qPrintable(script);
        for (const QString &file : left) QFile::remove(temporary + "/" + file);
    }
    dup2(input, STDIN_FILENO);
    close(input);
    QDir::setCurrent(previous);
    // The stubborn script ends a second later, reaped in the background.
    EXPECT_TRUE(noZombiesRemain());
    EXPECT_TRUE(scriptFilesIn(temporary).isEmpty());
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
        EXPECT_EQ(result.isNull(), expected.isNull()) << qPrintable(command);
        EXPECT_EQ(result, expected) << qPrintable(command);
    }
    EXPECT_TRUE(noZombiesRemain());
}

TEST(KVUtilitiesFileTest, FileSystemTypesComeFromTheMountHoldingThePath) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "mounting a tmpfs needs root";
    const QString mountPoint = TestEnvironment::makeTempDir("mount") + "/a volume";
    const QString link = QFileInfo(mountPoint).absolutePath() + "/to-volume";
    QDir().mkpath(mountPoint);
    ASSERT_EQ(QProcess::execute("mount", {"-t", "tmpfs", "kvtest", mountPoint}), 0);
    const std::unique_ptr<const QString, void (*)(const QString *)> mounted(
        &mountPoint, [](const QString *point) { QProcess::execute("umount", {*point}); });
    ASSERT_TRUE(TestEnvironment::writeFile(mountPoint + "/inside/file", "x"));
    ASSERT_TRUE(TestFiles::makeLink(link, mountPoint + "/inside"));  // the real path counts
    const std::tuple<QString, QString, int> rows[] = {{link + "/file", "tmpfs", 0},
                                                      {mountPoint + "/missing", "", -1}};
    for (const auto &[path, type, status] : rows) {
        LogCapture log;
        EXPECT_EQ(KVUtilities::fileSystemTypeFor(path), type) << qPrintable(path);
        EXPECT_EQ(log.messages(),
                  QStringList({"FS Info " + path, QString("statfs err = %1").arg(status)}));
    }
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

TEST(KVUtilitiesMicroTest, TheFrontGoesToMicroAndBack) {
    ASSERT_EQ(XSession::start(), "");  // or why not
    const QString micro = KV_INSTALLER_APP "/Contents/Resources/Micro.app";
    QStringList fronts;  // the programs in front while the helper ran
    const auto launchMicro = [&](const QString &helper) {
        const ScopedEnv platform("QT_QPA_PLATFORM", "xcb");  // the helper is a desktop program
        LogCapture log;
        std::atomic<bool> done = false;
        std::thread caller([&] {
            KVUtilitiesPrivate::launchMicro(false, helper);
            done = true;
        });
        // Until the helper has quit too: a busy machine may start it after the fixed wait.
        for (QDeadlineTimer deadline(kTimeoutMs);
             !done || (KVProcess::processWithSignatureString("VlMc") && !deadline.hasExpired());
             QTest::qWait(5))
            fronts << QFile::symLinkTarget(
                QString("/proc/%1/exe").arg(KVWindowServer::frontProcessID()));
        caller.join();
        return log.messages();
    };
    std::unique_ptr<QProcess> window = frontWindow({});
    const pid_t pid = pidOf(window);
    EXPECT_EQ(launchMicro(micro), QStringList("wait count (Micro) = 500"));
    EXPECT_TRUE(fronts.contains(micro + "/Contents/MacOS/Micro"));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return KVWindowServer::frontProcessID() == pid; }, kTimeoutMs));
    EXPECT_TRUE(noZombiesRemain());
    EXPECT_EQ(launchMicro(QString()),
              QStringList("** Error while running Micro: the helper application Micro is missing"));
    EXPECT_EQ(KVWindowServer::frontProcessID(), pid);
    XSession::stop(window);
    window = frontWindow({"--fullscreen"});
    EXPECT_TRUE(
        QTest::qWaitFor([] { return KVWindowServer::isFrontWindowFullScreen(); }, kTimeoutMs));
    EXPECT_EQ(launchMicro(micro), QStringList());
    EXPECT_EQ(KVWindowServer::frontProcessID(), pidOf(window));
    XSession::stop(window);
    XSession::stop();
}
