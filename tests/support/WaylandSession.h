// A real Wayland compositor: headless weston in a runtime folder of its own,
// optionally with XWayland for X11 clients.
#pragma once

#include <vector>

#include "XSession.h"

class WaylandSession {
public:
    enum class Clients { Native, XWayland };

    ~WaylandSession() { XSession::stop(m_weston); }

    // Why the compositor could not be started; empty when it runs.
    QString start(Clients clients);
    // This process and its children as clients, for the length of the scope.
    std::vector<std::unique_ptr<ScopedEnv>> clientScope() const;

private:
    std::unique_ptr<QProcess> m_weston;
    Clients m_clients = Clients::Native;
    QString m_runtimeFolder, m_socket, m_display;
};
