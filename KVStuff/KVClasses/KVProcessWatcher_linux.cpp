// Applications start and end as their windows appear in and leave the window
// manager's client list, and come to the front as the active window changes:
// both are properties of the root window, followed through X events. Every
// process handed to watchEnd gets a pidfd, which turns readable when it
// exits, with or without a display. Nothing polls: the application's event
// loop wakes only when the X connection or a pidfd has something to say.
#include <sys/syscall.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "KVProcessWatcher_p.h"
#include "KVProcess_p.h"
#include "KVWindowServer_p.h"

using namespace KVWindowServerPrivate;
using KVProcessWatcher::Change;

namespace {

using Identity = uint64_t;

Identity identityOf(const ProcessSerialNumber &psn) {
    return uint64_t(psn.highLongOfPSN) << 32 | psn.lowLongOfPSN;
}

// Lives on the application's thread, which alone touches it.
class Watcher {
public:
    explicit Watcher(std::function<void(Change)> changed) : m_changed(std::move(changed)) {}

    void followDesktop();
    void watchEnd(Identity identity, int pidfd);

private:
    void readEvents();
    void clientListChanged();
    void activeWindowChanged();
    void exited(Identity identity);
    // The processes with windows in the client list, each once, in order.
    std::vector<pid_t> clientOwners() const;
    // 0 for no window, or one that names no process.
    pid_t ownerOf(xcb_window_t window) const;
    void windowsLeft(Identity identity);
    // The identity of a process seen through its window; a process that has
    // ended already (or another user's) has only its pid.
    static ProcessSerialNumber serialNumberOf(pid_t pid);

    std::function<void(Change)> m_changed;
    ConnectionRef m_events;
    // Processes with windows in the client list, by pid.
    std::map<pid_t, ProcessSerialNumber> m_clients;
    pid_t m_front = 0;
    // The pidfds of the processes whose end is watched.
    std::map<Identity, QSocketNotifier *> m_endWatches;
    // Processes whose end one of the two sources (windows, pidfd) has
    // reported while the other has yet to see it; they are not counted twice.
    std::set<Identity> m_endReported;
};

Watcher *s_watcher = nullptr;

ProcessSerialNumber Watcher::serialNumberOf(pid_t pid) {
    const auto psn = KVProcessPrivate::serialNumberForPID(pid);
    return psn ? *psn : ProcessSerialNumber{0, uint32_t(pid)};
}

void Watcher::followDesktop() {
    const ConnectionRef shared = sharedConnection();
    if (!shared) return;
    m_events = openConnection(shared->display);
    if (!m_events) return;
    const uint32_t property = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(m_events->xcb, m_events->root, XCB_CW_EVENT_MASK, &property);
    // What runs already has started before we looked: no news.
    for (const pid_t pid : clientOwners()) m_clients.emplace(pid, serialNumberOf(pid));
    m_front = ownerOf(activeWindow(*m_events));
    followEvents(m_events, [this] { readEvents(); });
}

void Watcher::readEvents() {
    for (;;) {
        bool clients = false, active = false;
        while (xcb_generic_event_t *event = xcb_poll_for_event(m_events->xcb)) {
            if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
                const auto *notify = reinterpret_cast<const xcb_property_notify_event_t *>(event);
                clients |= notify->atom == m_events->atoms[NetClientList];
                active |= notify->atom == m_events->atoms[NetActiveWindow];
            }
            free(event);
        }
        if (!clients && !active) return;
        // Reading the properties may queue further events: the loop takes them.
        if (clients) clientListChanged();
        if (active) activeWindowChanged();
    }
}

std::vector<pid_t> Watcher::clientOwners() const {
    const std::vector<uint32_t> windows = propertyValues(
        *m_events,
        requestProperty(*m_events, m_events->root, NetClientList, XCB_ATOM_WINDOW, kMaxWindows));
    std::vector<pid_t> owners = windowOwners(*m_events, windows);
    std::sort(owners.begin(), owners.end());
    owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
    // Windows that name no process tell of none.
    owners.erase(owners.begin(), std::upper_bound(owners.begin(), owners.end(), 0));
    return owners;
}

pid_t Watcher::ownerOf(xcb_window_t window) const {
    return window == XCB_NONE ? 0 : windowOwners(*m_events, {window}).front();
}

void Watcher::clientListChanged() {
    const std::vector<pid_t> owners = clientOwners();
    std::vector<pid_t> left;
    for (const auto &[pid, psn] : m_clients)
        if (!std::binary_search(owners.begin(), owners.end(), pid)) left.push_back(pid);
    for (const pid_t pid : left) {
        const Identity identity = identityOf(m_clients.at(pid));
        m_clients.erase(pid);
        windowsLeft(identity);
    }
    for (const pid_t pid : owners) {
        if (m_clients.count(pid)) continue;
        m_clients.emplace(pid, serialNumberOf(pid));
        m_changed(Change::Started);
    }
}

void Watcher::activeWindowChanged() {
    // Focus moving between windows of one application is no switch, nor is
    // a moment without any active window.
    const pid_t front = ownerOf(activeWindow(*m_events));
    if (front <= 0 || front == m_front) return;
    m_front = front;
    m_changed(Change::Front);
}

void Watcher::windowsLeft(Identity identity) {
    if (m_endReported.erase(identity)) return;
    // The pidfd will see the same end (or the process lives on without
    // windows): it must not count again.
    if (m_endWatches.count(identity)) m_endReported.insert(identity);
    m_changed(Change::Ended);
}

void Watcher::exited(Identity identity) {
    const auto watch = m_endWatches.find(identity);
    if (watch != m_endWatches.end()) {
        // Its own signal may be what called: it goes once that has returned.
        watch->second->setEnabled(false);
        close(int(watch->second->socket()));
        watch->second->deleteLater();
        m_endWatches.erase(watch);
    }
    if (m_endReported.erase(identity)) {
        m_changed(Change::Exited);
        return;
    }
    const bool hasWindows = std::any_of(m_clients.begin(), m_clients.end(), [identity](auto &c) {
        return identityOf(c.second) == identity;
    });
    if (hasWindows) m_endReported.insert(identity);
    m_changed(Change::Ended);
}

void Watcher::watchEnd(Identity identity, int pidfd) {
    if (m_endWatches.count(identity)) {
        close(pidfd);
        return;
    }
    auto *notifier =
        new QSocketNotifier(pidfd, QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier,
                     [this, identity] { exited(identity); });
    m_endWatches.emplace(identity, notifier);
}

// Takes end watches handed over from other threads to the application's
// thread. Queued by method name, so that the call and its arguments travel
// inside Qt alone: a closure made on one thread and freed on another looks
// raced to ThreadSanitizer, which cannot see Qt's own locks.
class Handover : public QObject {
    Q_OBJECT
public:
    Q_INVOKABLE void watchEnd(quint64 identity, int pidfd) {
        if (s_watcher)
            s_watcher->watchEnd(identity, pidfd);
        else
            close(pidfd);
    }
};

Handover *handover() {
    static Handover *const receiver = [] {
        auto *object = new Handover;
        object->moveToThread(QCoreApplication::instance()->thread());
        return object;
    }();
    return receiver;
}

bool onApplicationThread() {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

}  // namespace

bool KVProcessWatcher::install(std::function<void(Change)> changed) {
    QCoreApplication *app = QCoreApplication::instance();
    if (!app) return false;
    QMetaObject::invokeMethod(
        app,
        [changed = std::move(changed)] {
            if (s_watcher) return;
            s_watcher = new Watcher(changed);
            s_watcher->followDesktop();
        },
        onApplicationThread() ? Qt::DirectConnection : Qt::QueuedConnection);
    return true;
}

void KVProcessWatcher::watchEnd(const ProcessSerialNumber &psn) {
    QCoreApplication *app = QCoreApplication::instance();
    const pid_t pid = pid_t(psn.lowLongOfPSN);
    if (!app || pid <= 0) return;
    // Opened at once, so that an end right after the lookup is seen too;
    // made first and checked after, so that a pid reused in between is never
    // taken for the process. One that has ended already waits for the next
    // end to prune the cache. A kernel without pidfds leaves the window list
    // alone to tell.
    const int pidfd = int(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) return;
    if (KVProcessPrivate::pidForSerialNumber(psn) != pid) {
        close(pidfd);
        return;
    }
    // Watched on the application's thread, a turn later: never inside the
    // lookup that cached the record.
    QMetaObject::invokeMethod(handover(), "watchEnd", Qt::QueuedConnection,
                              Q_ARG(quint64, identityOf(psn)), Q_ARG(int, pidfd));
}

#include "KVProcessWatcher_linux.moc"
