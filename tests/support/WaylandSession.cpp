#include "WaylandSession.h"

#include <unistd.h>

#include <QFile>
#include <QRegularExpression>

#include "TestEnvironment.h"

QString WaylandSession::start(Clients clients) {
    m_clients = clients;
    // weston refuses a runtime folder that others may enter.
    m_runtimeFolder = TestEnvironment::makeTempDir("wayland-runtime");
    QFile::setPermissions(m_runtimeFolder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_socket = QString("kv-wayland-%1").arg(getpid());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_RUNTIME_DIR", m_runtimeFolder);
    environment.remove("WAYLAND_DISPLAY");
    environment.remove("DISPLAY");
    QStringList arguments{"--backend=headless-backend.so", "--socket=" + m_socket, "--no-config"};
    if (clients == Clients::XWayland) arguments << "--xwayland";
    // The shell's client starts once the socket (and XWayland's display) listen.
    QString output;
    m_weston =
        XSession::startUntil("weston", arguments, "weston-desktop-shell'", &output, environment);
    if (!m_weston)
        return "weston did not start (scripts/install-deps installs weston and xwayland):\n" +
               output;
    static const QRegularExpression listening("listening on display (:[0-9]+)");
    m_display = listening.match(output).captured(1);
    if (clients == Clients::XWayland && m_display.isEmpty())
        return "XWayland got no display:\n" + output;
    return {};
}

std::vector<std::unique_ptr<ScopedEnv>> WaylandSession::clientScope() const {
    std::vector<std::unique_ptr<ScopedEnv>> scope;
    const auto set = [&](const char *name, const QString &value) {
        scope.push_back(std::make_unique<ScopedEnv>(
            name, value.isEmpty() ? std::nullopt : std::optional(value.toLocal8Bit())));
    };
    set("XDG_RUNTIME_DIR", m_runtimeFolder);
    set("WAYLAND_DISPLAY", m_socket);
    set("XDG_SESSION_TYPE", "wayland");
    set("DISPLAY", m_display);
    set("QT_QPA_PLATFORM", m_clients == Clients::XWayland ? "xcb" : "wayland");
    return scope;
}
