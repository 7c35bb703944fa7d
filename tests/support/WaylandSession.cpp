#include "WaylandSession.h"

#include <unistd.h>

#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include "TestEnvironment.h"

WaylandSession::~WaylandSession() { XSession::stop(m_weston); }

QString WaylandSession::start(Clients clients, bool withKeyboard) {
    m_clients = clients;
    for (const char *tool : {"weston", "weston-debug", "Xwayland"})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            return QString("%1 is not installed; scripts/install-deps installs weston and xwayland")
                .arg(tool);
    // The compositor refuses a runtime folder that others may enter.
    m_runtimeFolder = TestEnvironment::makeTempDir("wayland-runtime");
    QFile::setPermissions(m_runtimeFolder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_socket = QString("kv-wayland-%1").arg(getpid());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_RUNTIME_DIR", m_runtimeFolder);
    environment.remove("WAYLAND_DISPLAY");
    if (withKeyboard) {
        const QString error = XSession::start();
        if (!error.isEmpty()) return error;
        environment.insert("DISPLAY", XSession::display());
    } else {
        environment.remove("DISPLAY");
    }
    m_weston = std::make_unique<QProcess>();
    m_weston->setProcessEnvironment(environment);
    m_weston->setProcessChannelMode(QProcess::MergedChannels);
    // --debug lets any client read the scene graph.
    QStringList arguments{
        withKeyboard ? "--backend=x11-backend.so" : "--backend=headless-backend.so",
        "--socket=" + m_socket, "--no-config", "--debug"};
    if (clients == Clients::XWayland) arguments << "--xwayland";
    m_weston->start("weston", arguments);
    // The shell's client is launched once the socket (and XWayland's display)
    // listen.
    const QString output =
        QString::fromLocal8Bit(XSession::outputUntil(*m_weston, "weston-desktop-shell'"));
    if (!output.contains("weston-desktop-shell'")) return "weston did not start:\n" + output;
    if (clients == Clients::XWayland) {
        static const QRegularExpression listening("listening on display (:[0-9]+)");
        m_display = listening.match(output).captured(1);
        if (m_display.isEmpty()) return "XWayland got no display:\n" + output;
    }
    return {};
}

std::vector<std::unique_ptr<ScopedEnv>> WaylandSession::clientScope() const {
    const auto variable = [](const char *name, const QString &value) {
        return std::make_unique<ScopedEnv>(
            name, value.isEmpty() ? std::nullopt : std::optional(value.toLocal8Bit()));
    };
    std::vector<std::unique_ptr<ScopedEnv>> scope;
    scope.push_back(variable("XDG_RUNTIME_DIR", m_runtimeFolder));
    scope.push_back(variable("WAYLAND_DISPLAY", m_socket));
    scope.push_back(variable("XDG_SESSION_TYPE", "wayland"));
    scope.push_back(variable("DISPLAY", m_display));
    scope.push_back(
        variable("QT_QPA_PLATFORM", m_clients == Clients::XWayland ? "xcb" : "wayland"));
    return scope;
}

QString WaylandSession::sceneGraph() const {
    const auto client = clientScope();
    QProcess debug;
    debug.start("weston-debug", {"scene-graph"});
    debug.waitForFinished(10000);
    return QString::fromLocal8Bit(debug.readAllStandardOutput());
}
