#include "XSession.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTest>
#include <vector>

#include "TestEnvironment.h"

namespace {
std::unique_ptr<QProcess> s_xServer, s_windowManager;
QString s_display, s_error;
bool s_started = false;
std::vector<std::unique_ptr<ScopedEnv>> s_environment;

QString startServers() {
    for (const char *tool : {"Xvfb", "openbox", "xprop", "xdotool"})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            return QString("%1 is missing; scripts/install-deps installs it").arg(tool);
    const QString logs = TestEnvironment::makeTempDir("xserver");
    // -displayfd: Xvfb names a free display once it accepts connections.
    // -noreset: else it starts afresh whenever its last client leaves.
    s_xServer = std::make_unique<QProcess>();
    s_xServer->setStandardErrorFile(logs + "/xvfb.txt");
    s_xServer->start(
        "Xvfb", {"-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset"});
    const QByteArray number = XSession::outputUntil(*s_xServer, "\n");
    if (!number.contains('\n')) return "Xvfb did not start, see " + logs;
    s_display = ":" + QString::fromLatin1(number.trimmed());
    s_environment.emplace_back(std::make_unique<ScopedEnv>("DISPLAY", s_display.toLocal8Bit()));
    s_environment.emplace_back(std::make_unique<ScopedEnv>("WAYLAND_DISPLAY", std::nullopt));
    s_environment.emplace_back(std::make_unique<ScopedEnv>("XDG_SESSION_TYPE", std::nullopt));
    // openbox runs its startup command once it manages windows, not before.
    s_windowManager = std::make_unique<QProcess>();
    s_windowManager->setStandardOutputFile(logs + "/openbox.txt");
    s_windowManager->setStandardErrorFile(logs + "/openbox.txt", QIODevice::Append);
    const QString started = logs + "/openbox-started";
    s_windowManager->start("openbox", {"--sm-disable", "--startup", "touch " + started});
    if (!QTest::qWaitFor([&] { return QFile::exists(started); }, 10000))
        return "openbox did not start, see " + logs;
    return {};
}
}  // namespace

QString XSession::start() {
    if (!std::exchange(s_started, true)) s_error = startServers();
    return s_error;
}

void XSession::stop() {
    s_environment.clear();
    stop(s_windowManager);
    stop(s_xServer);
    s_started = false;
    s_display.clear();
}

QString XSession::display() { return s_display; }

QByteArray XSession::outputUntil(QProcess &process, const QByteArray &text) {
    QDeadlineTimer deadline(10000);
    QByteArray output;
    while (!output.contains(text) && process.waitForReadyRead(int(deadline.remainingTime())))
        output += process.readAll();
    return output;
}

void XSession::stop(std::unique_ptr<QProcess> &process) {
    if (!process) return;
    process->terminate();
    if (!process->waitForFinished(5000)) process->kill();
    process->waitForFinished(5000);
    process.reset();
}

std::unique_ptr<QProcess> XSession::startUntil(const QString &program, const QStringList &arguments,
                                               const QByteArray &text, QString *output,
                                               QProcessEnvironment environment) {
    auto child = std::make_unique<QProcess>();
    child->setProcessEnvironment(environment);
    child->setProcessChannelMode(QProcess::MergedChannels);
    child->start(program, arguments);
    *output = QString::fromLocal8Bit(outputUntil(*child, text));
    if (!output->contains(text)) stop(child);
    return child;
}

std::unique_ptr<QProcess> XSession::startWindowProgram(const QString &program,
                                                       const QStringList &arguments,
                                                       QString *error) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_QPA_PLATFORM", "xcb");
    return startUntil(program, arguments, "ready\n", error, environment);
}
