#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QFile>
#include <QRegularExpression>
#include <functional>
#include <thread>

#include "KVLog.h"
#include "TestEnvironment.h"

namespace {
// Runs the calls with file descriptor 2 pointing at a fresh file and returns
// what they wrote there.
QByteArray captureStandardError(const std::function<void()> &calls) {
    const QString path = TestEnvironment::makeTempDir("log") + "/stderr";
    const int file = open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    close(file);
    calls();
    dup2(saved, STDERR_FILENO);
    close(saved);
    QFile written(path);
    return written.open(QIODevice::ReadOnly) ? written.readAll() : QByteArray();
}

bool isLogLine(const QString &line, long thread, const QString &message) {
    const QString pattern =
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} FoundationTests\[%1:%2\] %3\n\z)";
    return QRegularExpression(
               pattern.arg(getpid()).arg(thread).arg(QRegularExpression::escape(message)))
        .match(line)
        .hasMatch();
}
}  // namespace

TEST(KVLogTest, WritesOneLineInThePlatformFormatToStandardError) {
    const QByteArray out =
        captureStandardError([] { kvLog("Installed %@ (%d)", QString("P"), 3); });
    EXPECT_TRUE(isLogLine(QString::fromUtf8(out), gettid(), "Installed P (3)")) << out.constData();
    // A message with its own newline still ends with exactly one.
    const QByteArray own = captureStandardError([] { KVLog::writeLine("done\n"); });
    EXPECT_TRUE(isLogLine(QString::fromUtf8(own), gettid(), "done")) << own.constData();
}

TEST(KVLogTest, KeepsTheLinesOfTwoThreadsIntact) {
    constexpr int kLines = 200;
    // Long lines make a line written in pieces likely to be split by the other thread.
    const QString fill(2000, QLatin1Char('x'));
    long threads[2] = {};
    const QByteArray out = captureStandardError([&] {
        auto writer = [&](int n) {
            threads[n] = gettid();
            for (int i = 0; i < kLines; ++i) kvLog("thread %d line %d %@", n, i, fill);
        };
        std::thread first(writer, 0), second(writer, 1);
        first.join();
        second.join();
    });
    const QStringList lines = QString::fromUtf8(out).split('\n');
    ASSERT_EQ(lines.size(), 2 * kLines + 1);
    int seen[2] = {};
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        const int n = lines[i].contains("] thread 1 ") ? 1 : 0;
        const QString message = QString("thread %1 line %2 %3").arg(n).arg(seen[n]++).arg(fill);
        ASSERT_TRUE(isLogLine(lines[i] + '\n', threads[n], message))
            << lines[i].left(120).toStdString();
    }
}
