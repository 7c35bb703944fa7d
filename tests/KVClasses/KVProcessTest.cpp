#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <csignal>
#include <functional>
#include <utility>
#include <vector>

#include "KVFourCharCode.h"
#include "KVProcess.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

// Codes and identifiers of this test process only, so that test programs
// running side by side never find each other's children.
QString uniqueSignature() {
    static uint32_t counter = 0;
    uint32_t n = uint32_t(getpid()) * 64 + counter++;
    QString code;
    for (int i = 0; i < 4; ++i, n /= 26) code.prepend(QChar('A' + n % 26));
    return code;
}

QString uniqueIdentifier() { return "org.velmora.proctest." + uniqueSignature(); }

QString canonical(const QString &path) { return QFileInfo(path).canonicalFilePath(); }

// Starts real child processes and reaps every one of them.
class ChildProcessTest : public testing::Test {
protected:
    void TearDown() override {
        for (pid_t pid : m_children) TestBundle::stop(pid);
    }

    pid_t start(const QString &program) {
        const pid_t pid = TestBundle::start(program);
        if (pid > 0) m_children.push_back(pid);
        return pid;
    }

    void stop(pid_t pid) {
        TestBundle::stop(pid);
        m_children.erase(std::remove(m_children.begin(), m_children.end(), pid), m_children.end());
    }

    KVProcessRef launch(const QString &program) {
        const pid_t pid = start(program);
        EXPECT_GT(pid, 0) << program.toStdString();
        return pid > 0 ? KVProcess::processWithPID(pid) : nullptr;
    }

    // A copy of the child program running inside a new bundle Name.app.
    KVProcessRef launchBundle(const QString &name, const QVariantMap &info = {}) {
        m_bundle = TestBundle::make(TestEnvironment::makeTempDir(name), name, info);
        return launch(TestBundle::executableOf(m_bundle));
    }

    QString m_bundle;  // of the last launchBundle
    std::vector<pid_t> m_children;
};

class KVProcessLookupTest : public ChildProcessTest {};
class KVProcessBundleTest : public ChildProcessTest {};

TEST_F(KVProcessLookupTest, LookingUpARecordAgainGivesTheIdenticalObjectAtTheCacheFront) {
    const QString code = uniqueSignature();
    const QString identifier = uniqueIdentifier();
    const KVProcessRef process =
        launchBundle("Twice", {{"CFBundleSignature", code}, {"CFBundleIdentifier", identifier}});
    ASSERT_TRUE(process);

    const std::vector<std::pair<const char *, std::function<KVProcessRef()>>> lookups{
        {"serial number",
         [&] { return KVProcess::processWithSerialNumber(process->serialNumber()); }},
        {"pid", [&] { return KVProcess::processWithPID(process->unixPID()); }},
        {"signature",
         [&] { return KVProcess::processWithSignature(KVFourCharCode::fromString(code)); }},
        {"signature string", [&] { return KVProcess::processWithSignatureString(code); }},
    };
    for (const auto &[how, lookup] : lookups) {
        SCOPED_TRACE(how);
        KVProcess::processWithPID(getpid());  // puts another record in front
        ASSERT_NE(KVProcess::cachedProcesses().value(0), process);
        EXPECT_EQ(lookup(), process);
        EXPECT_EQ(KVProcess::cachedProcesses().value(0), process);
    }
    EXPECT_EQ(KVProcess::processWithIdentifier(identifier), process);
    EXPECT_EQ(KVProcess::processWithIdentifier(uniqueIdentifier()), nullptr);
    // A code of another length converts to 0, which no process has.
    EXPECT_EQ(KVProcess::processWithSignatureString(code.left(3)), nullptr);
    EXPECT_EQ(KVProcess::processWithSignatureString(code + "X"), nullptr);
}

TEST_F(KVProcessLookupTest, AllProcessesListsOwnProcessesInAscendingPidOrder) {
    const pid_t outside = start(KV_TEST_CHILD);
    ASSERT_GT(outside, 0);
    std::vector<uint32_t> pids;
    for (const KVProcessRef &process : KVProcess::allProcesses())
        pids.push_back(process->serialNumber().lowLongOfPSN);
    EXPECT_TRUE(std::adjacent_find(pids.begin(), pids.end(), std::greater_equal<>()) == pids.end());
    EXPECT_NE(std::find(pids.begin(), pids.end(), uint32_t(getpid())), pids.end());
    EXPECT_NE(std::find(pids.begin(), pids.end(), uint32_t(outside)), pids.end());
}

TEST_F(KVProcessLookupTest, NoRecordForAnUnreapedChildThatExitedOrANonPositivePid) {
    EXPECT_EQ(KVProcess::processWithPID(0), nullptr);
    EXPECT_EQ(KVProcess::processWithPID(-1), nullptr);
    const pid_t pid = start(KV_TEST_CHILD);
    const KVProcessRef record = KVProcess::processWithPID(pid);
    ASSERT_TRUE(record);
    kill(pid, SIGKILL);
    siginfo_t status{};
    ASSERT_EQ(waitid(P_PID, id_t(pid), &status, WEXITED | WNOWAIT), 0);  // a zombie now

    EXPECT_EQ(KVProcess::processWithPID(pid), nullptr);
    EXPECT_FALSE(record->isStillRunning());
    EXPECT_EQ(record->unixPID(), 0);
}

TEST_F(KVProcessLookupTest, CurrentProcessIsTheRecordOfTheOwnPid) {
    const KVProcessRef current = KVProcess::currentProcess();
    ASSERT_TRUE(current);
    EXPECT_EQ(current, KVProcess::processWithPID(getpid()));
    EXPECT_EQ(current->unixPID(), getpid());
    EXPECT_EQ(current->name(), QFileInfo(QCoreApplication::applicationFilePath()).fileName());
}

TEST_F(KVProcessLookupTest, ARecordOfAnEndedProcessIsNotRunningAndDiffersFromALaterOne) {
    const pid_t pid = start(KV_TEST_CHILD);
    const KVProcessRef ended = KVProcess::processWithPID(pid);
    ASSERT_TRUE(ended);
    stop(pid);
    EXPECT_FALSE(ended->isStillRunning());

    const KVProcessRef later = launch(KV_TEST_CHILD);
    ASSERT_TRUE(later);
    EXPECT_NE(later, ended);
    EXPECT_FALSE(ended->isEqual(later));
}

TEST_F(KVProcessLookupTest, TheSamePidWithAnotherStartTimeIsAnotherProcess) {
    const KVProcessRef self = KVProcess::processWithPID(getpid());
    ASSERT_TRUE(self);
    ProcessSerialNumber reused = self->serialNumber();
    reused.highLongOfPSN += 1;

    const KVProcessRef other = KVProcess::processWithSerialNumber(reused);
    ASSERT_TRUE(other);
    EXPECT_NE(other, self);
    EXPECT_FALSE(self->isEqual(other));
    EXPECT_FALSE(other->isStillRunning());
    EXPECT_EQ(other->signatureString(), "");
    EXPECT_EQ(other->hash(), self->hash() + 1);
}

TEST_F(KVProcessLookupTest, CleanupCacheRemovesOnlyRecordsOfEndedProcesses) {
    const KVProcessRef current = KVProcess::currentProcess();
    const pid_t survivor = start(KV_TEST_CHILD);
    const pid_t first = start(KV_TEST_CHILD);
    const pid_t second = start(KV_TEST_CHILD);
    const KVProcessRef survivorRecord = KVProcess::processWithPID(survivor);
    // Two dead records side by side: removing one must not skip the next.
    const KVProcessRef firstRecord = KVProcess::processWithPID(first);
    const KVProcessRef secondRecord = KVProcess::processWithPID(second);
    ASSERT_TRUE(survivorRecord && firstRecord && secondRecord);
    stop(first);
    stop(second);

    KVProcess::cleanupCache();
    const QList<KVProcessRef> cached = KVProcess::cachedProcesses();
    EXPECT_FALSE(cached.contains(firstRecord));
    EXPECT_FALSE(cached.contains(secondRecord));
    EXPECT_TRUE(cached.contains(survivorRecord));
    EXPECT_TRUE(cached.contains(current));
}

TEST_F(KVProcessBundleTest, NameSignatureAndIdentifierComeFromTheInfoPlist) {
    const QString code = uniqueSignature();
    const KVProcessRef process =
        launchBundle("Writer", {{"CFBundleName", "Velmora Writer"},
                                {"CFBundleDisplayName", "Writer Pro"},
                                {"CFBundleSignature", code},
                                {"CFBundleIdentifier", "org.velmora.writer"}});
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name(), "Velmora Writer");
    EXPECT_EQ(process->displayName(), "Writer Pro");
    EXPECT_EQ(process->signature(), KVFourCharCode::fromString(code));
    EXPECT_EQ(process->signatureString(), code);
    EXPECT_EQ(process->identifier(), "org.velmora.writer");
    EXPECT_EQ(process->path(), canonical(m_bundle));
    EXPECT_EQ(process->appName(), "Writer.app");

    const QVariantMap info = process->infoDictionary();
    EXPECT_EQ(info.value("pid").toInt(), process->unixPID());
    EXPECT_EQ(info.value("BundlePath").toString(), canonical(m_bundle));
}

TEST_F(KVProcessBundleTest, WithoutBundleNameOrSignatureTheExecutableNamesTheProcess) {
    const KVProcessRef process =
        launchBundle("Tool", {{"CFBundleExecutable", "tool-bin"}, {"CFBundleSignature", "TOOLS"}});
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name(), "tool-bin");
    EXPECT_EQ(process->displayName(), "tool-bin");
    EXPECT_EQ(process->signature(), 0x3F3F3F3Fu);
    EXPECT_EQ(process->signatureString(), "????");
    EXPECT_EQ(process->identifier(), "");
}

TEST_F(KVProcessBundleTest, MalformedInfoPlistFallsBackToTheExecutableName) {
    const QString folder = TestEnvironment::makeTempDir("broken");
    const QString bundle = TestBundle::make(folder, "Broken");
    ASSERT_TRUE(TestEnvironment::writeFile(bundle + "/Contents/Info.plist", "\x89garbage<plist"));
    const KVProcessRef process = launch(bundle + "/Contents/MacOS/Broken");
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name(), "Broken");
    EXPECT_EQ(process->path(), canonical(bundle));
    EXPECT_EQ(process->signatureString(), "????");
    EXPECT_EQ(process->version(), "1.0");
    EXPECT_FALSE(process->isCocoa());
}

TEST_F(KVProcessBundleTest, AProcessWhoseExecutableWasReplacedKeepsItsNameAndBundle) {
    const KVProcessRef process = launchBundle("Replaced");
    ASSERT_TRUE(process);
    ASSERT_TRUE(QFile::remove(TestBundle::executableOf(m_bundle)));
    EXPECT_EQ(process->name(), "Replaced");
    EXPECT_EQ(process->path(), canonical(m_bundle));
}

TEST_F(KVProcessBundleTest, AProcessOutsideABundleIsKnownByItsExecutable) {
    const KVProcessRef process = launch(KV_TEST_CHILD);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name(), "kvtest_child");
    EXPECT_EQ(process->path(), canonical(KV_TEST_CHILD));
    EXPECT_EQ(process->version(), "1.0");
    EXPECT_TRUE(process->carbonVersion().isNull());
    EXPECT_TRUE(KVProcess::allProcesses().contains(process));

    const QVariantMap info = process->infoDictionary();
    EXPECT_EQ(info.value("CFBundleName").toString(), "kvtest_child");
    EXPECT_EQ(info.value("CFBundleExecutablePath").toString(), canonical(KV_TEST_CHILD));
}

TEST_F(KVProcessBundleTest, VersionPrefersADottedShortVersionThenBundleVersionThenOnePointZero) {
    const std::vector<std::pair<QVariantMap, QString>> cases{
        {{{"CFBundleShortVersionString", "2.5.1"}, {"CFBundleVersion", "412"}}, "2.5.1"},
        {{{"CFBundleVersion", "412"}}, "412"},
        {{{"CFBundleShortVersionString", "2"}, {"CFBundleVersion", "412"}}, "412"},
        {{{"CFBundleShortVersionString", "2"}}, "1.0"},
        {{{"CFBundleVersion", 412}}, "1.0"},
        {{}, "1.0"},
    };
    for (const auto &[info, expected] : cases) {
        const KVProcessRef process = launchBundle("Versioned", info);
        ASSERT_TRUE(process);
        EXPECT_EQ(process->version(), expected) << expected.toStdString();
    }
}

TEST_F(KVProcessBundleTest, IsAtLeastVersionComparesComponentsAsIntegers) {
    const KVProcessRef threePart = launchBundle("Three", {{"CFBundleShortVersionString", "2.1.0"}});
    const KVProcessRef twoTen = launchBundle("TwoTen", {{"CFBundleShortVersionString", "2.10"}});
    ASSERT_TRUE(threePart && twoTen);

    EXPECT_TRUE(threePart->isAtLeastVersion("2.1"));
    EXPECT_TRUE(threePart->isAtLeastVersion("2.1.0.0"));
    EXPECT_FALSE(threePart->isAtLeastVersion("2.1.1"));
    EXPECT_TRUE(twoTen->isAtLeastVersion("2.9"));
    EXPECT_FALSE(twoTen->isAtLeastVersion("2.11"));
    EXPECT_FALSE(twoTen->isAtLeastVersion("10"));
    EXPECT_EQ(twoTen->majorVersionNumber(), 2);
}

TEST_F(KVProcessBundleTest, HashStringSourcePrefersIdentifierThenSignatureThenName) {
    const QString code = uniqueSignature();
    const KVProcessRef withIdentifier = launchBundle(
        "Hashed", {{"CFBundleIdentifier", "org.velmora.hashcheck"}, {"CFBundleSignature", code}});
    const KVProcessRef withSignature = launchBundle("Signed", {{"CFBundleSignature", code}});
    const KVProcessRef nameOnly = launchBundle("Nameless", {{"CFBundleName", "Velmora Notes"}});
    ASSERT_TRUE(withIdentifier && withSignature && nameOnly);

    EXPECT_EQ(withIdentifier->hashStringSource(), "id:org.velmora.hashcheck");
    EXPECT_EQ(withIdentifier->hashString(), "4fc2a1c6fd0284bcf31d202eb0b99860");
    EXPECT_EQ(withSignature->hashStringSource(), "sig:" + code);
    EXPECT_EQ(nameOnly->hashStringSource(), "name:Velmora Notes");
}

TEST_F(KVProcessBundleTest, SignatureHexStringSignExtendsBytesFrom0x80Up) {
    const KVProcessRef plain = launchBundle("Hex", {{"CFBundleSignature", "ABCD"}});
    const KVProcessRef high = launchBundle("HighHex", {{"CFBundleSignature", "AB\u00e9D"}});
    ASSERT_TRUE(plain && high);
    EXPECT_EQ(plain->signatureHexString(), "41424344");

    const int third = int((high->signature() >> 8) & 0xFF);
    ASSERT_GE(third, 0x80);
    EXPECT_EQ(high->signatureHexString(),
              "4142FFFFFF" + QString::number(third, 16).toUpper() + "44");
}

// Cocoa needs a principal class that is a string; booleans may be stored as
// booleans, numbers or texts.
TEST_F(KVProcessBundleTest, PlatformAndBackgroundOnlyComeFromTheInfoPlist) {
    struct Case {
        QVariantMap info;
        QString platform;
        bool backgroundOnly;
    };
    const std::vector<Case> cases{
        {{{"NSPrincipalClass", "NSApplication"}, {"LSUIElement", "YES"}}, "Cocoa", true},
        {{{"NSPrincipalClass", 7}, {"LSBackgroundOnly", false}, {"LSUIElement", 1}},
         "Carbon",
         true},
        {{{"CFBundleIdentifier", "org.velmora.java.Run"}, {"LSBackgroundOnly", true}},
         "Java",
         true},
        {{{"LSBackgroundOnly", "0"}, {"LSUIElement", 0}}, "Carbon", false},
    };
    for (const Case &c : cases) {
        const KVProcessRef process = launchBundle("Flagged", c.info);
        ASSERT_TRUE(process);
        EXPECT_EQ(process->platform(), c.platform);
        EXPECT_EQ(process->isBackgroundOnly(), c.backgroundOnly) << c.platform.toStdString();
    }
}

TEST(KVProcessVersResourceTest, DecodesFromTheFarEndWithStageLetterAndRevision) {
    const auto decode = [](int revision, int stage, int minorAndBug, int major) {
        QByteArray bytes;
        for (int byte : {revision, stage, minorAndBug, major}) bytes.append(char(byte));
        return KVProcess::versionFromVersResource(bytes + "\xff");
    };
    EXPECT_EQ(decode(0, 0x80, 0x10, 0x01), "1.1");
    EXPECT_EQ(decode(0, 0x80, 0x25, 0x12), "12.2.5");
    EXPECT_EQ(decode(17, 0x20, 0x00, 0x09), "9.0d17");
    EXPECT_EQ(decode(2, 0x40, 0x30, 0x01), "1.3a2");
    EXPECT_EQ(decode(3, 0x60, 0x25, 0x12), "12.2.5b3");
    // Final and unknown stages have no letter: the number follows directly.
    EXPECT_EQ(decode(7, 0x80, 0x10, 0x01), "1.17");
    EXPECT_EQ(decode(5, 0x41, 0x10, 0x01), "1.15");
    EXPECT_TRUE(KVProcess::versionFromVersResource("\x01\x02\x03").isNull());
}

}  // namespace
