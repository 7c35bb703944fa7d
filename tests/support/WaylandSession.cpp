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

std::vector<std::pair<const char *, QString>> WaylandSession::clientValues() const {
    const bool x11 = m_clients == Clients::XWayland;
    return {{"XDG_RUNTIME_DIR", m_runtimeFolder},
            {"WAYLAND_DISPLAY", m_socket},
            {"XDG_SESSION_TYPE", "wayland"},
            {"DISPLAY", m_display},
            {"QT_QPA_PLATFORM", x11 ? "xcb" : "wayland"}};
}

QStringList WaylandSession::clientVariables() const {
    QStringList variables;
    for (const auto &[name, value] : clientValues()) variables << name + ('=' + value);
    return variables;
}

QProcessEnvironment WaylandSession::clientEnvironment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto &[name, value] : clientValues()) environment.insert(name, value);
    if (m_display.isEmpty()) environment.remove("DISPLAY");
    return environment;
}

std::vector<std::unique_ptr<ScopedEnv>> WaylandSession::clientScope() const {
    std::vector<std::unique_ptr<ScopedEnv>> scope;
    for (const auto &[name, value] : clientValues())
        scope.push_back(std::make_unique<ScopedEnv>(name, value.toLocal8Bit()));
    return scope;
}

QString WaylandSession::sceneGraph() const {
    QProcess debug;
    debug.setProcessEnvironment(clientEnvironment());
    debug.start("weston-debug", {"scene-graph"});
    debug.waitForFinished(10000);
    return QString::fromLocal8Bit(debug.readAllStandardOutput());
}
