// AT-SPI2 through libatspi, on the main thread only: libatspi is not
// thread-safe, and its bus connection lives in a GLib main context that the
// main thread runs.
#include <atspi/atspi.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStringList>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <map>
#include <utility>
#include <vector>

#include "KVAccessibility.h"

namespace {

bool onMainThread() {
    const QCoreApplication *application = QCoreApplication::instance();
    return application && QThread::currentThread() == application->thread();
}

// Runs libatspi's main context from the main thread's event loop, whatever
// dispatcher that loop has. libatspi hands every incoming event to an idle
// source; on GLib's default context, shared with Qt, a busy loop can starve
// that source and events stop arriving. In a context of its own the idle
// source runs as soon as the bus has been read. Nothing polls: the loop
// wakes for the context's descriptors and its next time-out only.
class ContextPump : public QObject {
public:
    explicit ContextPump(GMainContext *context) : m_context(context) {
        m_timer.setSingleShot(true);
        connect(&m_timer, &QTimer::timeout, this, &ContextPump::run);
    }

    void run() {
        while (g_main_context_iteration(m_context, FALSE)) {
        }
        watch();
    }

private:
    // One prepare-query-check cycle without dispatching, for what to wait on.
    void watch() {
        if (!g_main_context_acquire(m_context)) return;
        gint priority = 0, timeout = -1;
        g_main_context_prepare(m_context, &priority);
        std::vector<GPollFD> fds(8);
        gint count;
        while ((count = g_main_context_query(m_context, priority, &timeout, fds.data(),
                                             gint(fds.size()))) > gint(fds.size()))
            fds.resize(size_t(count));
        fds.resize(size_t(count));
        g_main_context_check(m_context, priority, fds.data(), count);
        g_main_context_release(m_context);

        // A descriptor is watched for reading and, while libdbus has more to
        // send than the socket took, for writing.
        Notifiers notifiers;
        for (const GPollFD &fd : fds) {
            for (const auto &[condition, type] : {std::pair(G_IO_IN, QSocketNotifier::Read),
                                                  std::pair(G_IO_OUT, QSocketNotifier::Write)}) {
                const Notifiers::key_type key(fd.fd, type);
                if (!(fd.events & condition) || notifiers.count(key)) continue;
                auto kept = m_notifiers.find(key);
                if (kept != m_notifiers.end()) {
                    notifiers.emplace(key, std::move(kept->second));
                    continue;
                }
                auto notifier = std::make_unique<QSocketNotifier>(fd.fd, type);
                connect(notifier.get(), &QSocketNotifier::activated, this, &ContextPump::run);
                notifiers.emplace(key, std::move(notifier));
            }
        }
        m_notifiers.swap(notifiers);
        if (timeout >= 0)
            m_timer.start(timeout);
        else
            m_timer.stop();
    }

    using Notifiers =
        std::map<std::pair<int, QSocketNotifier::Type>, std::unique_ptr<QSocketNotifier>>;

    GMainContext *m_context;
    Notifiers m_notifiers;
    QTimer m_timer;
};

// Never destroyed: libatspi keeps its context to the end.
ContextPump *s_pump = nullptr;

// Once per process: libatspi cannot connect again after a failure, and any
// later call of it without a bus ends the process.
bool connected() {
    static const bool isConnected = [] {
        if (atspi_init() == 2) return false;  // no accessibility bus
        GMainContext *context = g_main_context_new();
        atspi_set_main_context(context);
        s_pump = new ContextPump(context);
        s_pump->run();
        return true;
    }();
    return isConnected;
}

// A call that waits for its answer reads whatever else the bus brings and
// leaves it queued: it is handled on the loop's next turn.
void handleQueuedLater() {
    if (s_pump) QMetaObject::invokeMethod(s_pump, &ContextPump::run, Qt::QueuedConnection);
}

// Errors only tell that an answer is missing, which callers see anyway.
bool succeeded(GError *&error) {
    if (!error) return true;
    g_clear_error(&error);
    return false;
}

QString takeString(gchar *text, GError *&error) {
    handleQueuedLater();
    const QString result = succeeded(error) && text ? QString::fromUtf8(text) : QString();
    g_free(text);
    return result;
}

AtspiAccessible *accessible(const KVAccessibilityElement &element) {
    return static_cast<AtspiAccessible *>(element.handle());
}

// The names the library's callers use, as AT-SPI event types. A state
// change reports both directions: only the state being set counts here.
struct EventType {
    const char *name;
    const char *atspiType;
    bool stateSet;
};
constexpr EventType kEventTypes[] = {
    {"AXFocusedUIElementChanged", "object:state-changed:focused", true},
    {"AXFocusedWindowChanged", "window:activate", false},
    {"AXMainWindowChanged", "window:activate", false},
    {"AXWindowCreated", "window:create", false},
    {"AXValueChanged", "object:property-change:accessible-value", false},
    {"AXTitleChanged", "object:property-change:accessible-name", false},
    {"AXSelectedChildrenChanged", "object:selection-changed", false},
    {"AXUIElementDestroyed", "object:state-changed:defunct", true},
};

// AT-SPI's own event classes; any other name is no event type at all.
bool isAtspiEventType(const QString &name) {
    static const QStringList kClasses = {"object",   "window",   "document", "focus",
                                         "terminal", "keyboard", "mouse",    "screen-reader"};
    return kClasses.contains(name.section(QLatin1Char(':'), 0, 0));
}

EventType eventType(const QString &name) {
    for (const EventType &type : kEventTypes)
        if (name == QLatin1String(type.name)) return type;
    return {nullptr, nullptr, false};
}

QByteArray atspiType(const QString &name) {
    const EventType type = eventType(name);
    if (type.atspiType) return type.atspiType;
    return isAtspiEventType(name) ? name.toUtf8() : QByteArray();
}

class AtspiObserver final : public KVAccessibility::Observer {
public:
    AtspiObserver(const KVAccessibilityElement &application, Handler handler)
        : m_application(application),
          m_handler(std::move(handler)),
          m_listener(atspi_event_listener_new(&AtspiObserver::received, this, nullptr)) {}

    ~AtspiObserver() override {
        stop();
        for (const QString &name : std::exchange(m_names, {})) deregister(name);
        g_object_unref(m_listener);
        handleQueuedLater();
    }

    bool addNotification(const QString &name) override {
        if (m_names.contains(name)) return true;
        const QByteArray type = atspiType(name);
        if (type.isEmpty()) return false;
        GError *error = nullptr;
        if (!atspi_event_listener_register_with_app(m_listener, type.constData(), nullptr,
                                                    accessible(m_application), &error) ||
            !succeeded(error))
            return false;
        m_names.append(name);
        handleQueuedLater();
        return true;
    }

    void removeNotification(const QString &name) override {
        if (m_names.removeAll(name) > 0) deregister(name);
        handleQueuedLater();
    }

    void stop() override { m_stopped = true; }

private:
    // Two names may share an event type: it stays while another is wanted.
    void deregister(const QString &name) {
        const QByteArray type = atspiType(name);
        for (const QString &other : std::as_const(m_names))
            if (atspiType(other) == type) return;
        atspi_event_listener_deregister(m_listener, type.constData(), nullptr);
    }

    static void received(AtspiEvent *event, void *data) {
        static_cast<AtspiObserver *>(data)->deliver(event);
        g_boxed_free(ATSPI_TYPE_EVENT, event);
    }

    void deliver(const AtspiEvent *event) {
        if (m_stopped || !event->type) return;
        const QByteArray type(event->type);
        // Events of other applications on the same listener are no concern
        // of this one.
        if (event->source && event->source->parent.app != accessible(m_application)->parent.app)
            return;
        KVAccessibilityElement element;
        if (event->source) element = KVAccessibilityElement(g_object_ref(event->source));
        // A copy: a handler may remove notifications.
        const QStringList names = m_names;
        for (const QString &name : names) {
            const EventType mapped = eventType(name);
            if (atspiType(name) != type || (mapped.stateSet && event->detail1 == 0)) continue;
            if (m_stopped) return;
            m_handler(element, name);
        }
    }

    KVAccessibilityElement m_application;
    Handler m_handler;
    AtspiEventListener *m_listener;
    QStringList m_names;
    std::atomic<bool> m_stopped{false};
};

// The last reference to a libatspi object goes on the thread that runs it.
void unrefOnMainThread(void *object) {
    if (!object) return;
    if (onMainThread() || !QCoreApplication::instance())
        g_object_unref(object);
    else
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [object] { g_object_unref(object); },
            Qt::QueuedConnection);
}

// The application among the desktop's children whose bus connection the
// process holds.
KVAccessibilityElement findApplication(pid_t pid) {
    AtspiAccessible *desktopObject = atspi_get_desktop(0);
    if (!desktopObject) return {};
    const KVAccessibilityElement desktop(desktopObject);
    GError *error = nullptr;
    const gint count = atspi_accessible_get_child_count(desktopObject, &error);
    if (!succeeded(error)) return {};
    for (gint i = 0; i < count; ++i) {
        AtspiAccessible *child = atspi_accessible_get_child_at_index(desktopObject, i, &error);
        if (!succeeded(error) || !child) continue;
        KVAccessibilityElement application(child);
        const guint owner = atspi_accessible_get_process_id(child, &error);
        if (succeeded(error) && owner == guint(pid)) return application;
    }
    return {};
}

}  // namespace

KVAccessibilityElement::KVAccessibilityElement(void *element)
    : m_element(element, unrefOnMainThread) {}

QString KVAccessibilityElement::name() const {
    if (isNull() || !onMainThread()) return QString();
    GError *error = nullptr;
    gchar *text = atspi_accessible_get_name(accessible(*this), &error);
    return takeString(text, error);
}

QString KVAccessibilityElement::role() const {
    if (isNull() || !onMainThread()) return QString();
    GError *error = nullptr;
    gchar *text = atspi_accessible_get_role_name(accessible(*this), &error);
    return takeString(text, error);
}

KVAccessibilityElement KVAccessibility::applicationElement(pid_t pid) {
    if (pid <= 0 || !onMainThread() || !connected()) return {};
    const KVAccessibilityElement application = findApplication(pid);
    handleQueuedLater();
    return application;
}

std::unique_ptr<KVAccessibility::Observer> KVAccessibility::Observer::create(
    const KVAccessibilityElement &application, Handler handler) {
    if (application.isNull() || !onMainThread() || !connected()) return nullptr;
    return std::make_unique<AtspiObserver>(application, std::move(handler));
}

void KVAccessibility::Observer::releaseOnMainThread(std::unique_ptr<Observer> observer) {
    if (!observer) return;
    observer->stop();
    if (onMainThread() || !QCoreApplication::instance()) return;
    Observer *released = observer.release();
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [released] { delete released; }, Qt::QueuedConnection);
}
