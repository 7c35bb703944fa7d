// Events over the D-Bus session bus: each receiving process owns
// "org.velmora.events.p<PID>" and exports Send(s, s, s) on "/org/velmora/events".
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusError>
#include <QDBusMessage>
#include <QObject>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVAppleEvent_p.h"
#include "KVLog.h"

namespace {
const QString kObjectPath = QStringLiteral("/org/velmora/events");
const QString kInterface = QStringLiteral("org.velmora.Events");
const QString kNotHandled = QStringLiteral("org.velmora.Events.Error.NotHandled");
const QString kBadEvent = QStringLiteral("org.velmora.Events.Error.BadEvent");
const QString kNameHasNoOwner = QStringLiteral("org.freedesktop.DBus.Error.NameHasNoOwner");
const QString kSenderConnection = QStringLiteral("org.velmora.events.sender");

QString serviceOf(pid_t pid) { return QStringLiteral("org.velmora.events.p%1").arg(pid); }

// Sending has a connection of its own. On the shared session connection Qt
// hands an event for this very process straight to the main thread and waits
// for it there however long that takes; through the bus the time-out holds.
QDBusConnection senderConnection() {
    QDBusConnection connection =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, kSenderConnection);
    // A failed connection is dropped so that the next send tries again.
    if (!connection.isConnected()) QDBusConnection::disconnectFromBus(kSenderConnection);
    return connection;
}

int codeOf(const QDBusError &error, pid_t pid, const QString &eventClass, const QString &eventID) {
    switch (error.type()) {
        case QDBusError::ServiceUnknown:
            return KVAppleEvent::procNotFound;
        case QDBusError::NoReply:
        case QDBusError::Timeout:
        case QDBusError::TimedOut:
            return KVAppleEvent::errAETimeout;
        case QDBusError::Disconnected:
            return KVAppleEvent::connectionInvalid;
        default:
            break;
    }
    if (error.name() == kNotHandled) return KVAppleEvent::errAEEventNotHandled;
    if (error.name() == kNameHasNoOwner) return KVAppleEvent::procNotFound;
    kvLog("event %@/%@ to %d failed: %@ (%@)", eventClass, eventID, int(pid), error.message(),
          error.name());
    return KVAppleEvent::errAEEventFailed;
}

QDBusMessage callToTheBus(const QString &method) {
    return QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", method);
}

// Asks the bus itself, which answers at once, whether anyone owns the name.
bool hasOwner(const QDBusConnection &connection, const QString &service) {
    const QDBusMessage answer =
        connection.call(callToTheBus("NameHasOwner") << service, QDBus::Block);
    return answer.type() == QDBusMessage::ReplyMessage && answer.arguments().value(0).toBool();
}

}  // namespace

int KVAppleEventPlatform::send(pid_t pid, const QString &eventClass, const QString &eventID,
                               const QString &directParameter, int timeoutMilliseconds) {
    QDBusConnection connection = senderConnection();
    if (!connection.isConnected()) return KVAppleEvent::connectionInvalid;
    const QString service = serviceOf(pid);
    QDBusMessage event = QDBusMessage::createMethodCall(service, kObjectPath, kInterface, "Send");
    event << eventClass << eventID << directParameter;
    // A name without owner is no program to start: it simply is not running.
    event.setAutoStartService(false);

    if (timeoutMilliseconds == 0) {
        if (!hasOwner(connection, service)) return KVAppleEvent::procNotFound;
        // send() marks the call as wanting no reply, so the receiver sends none.
        return connection.send(event) ? KVAppleEvent::noErr : KVAppleEvent::connectionInvalid;
    }
    const QDBusMessage reply = connection.call(event, QDBus::Block, timeoutMilliseconds);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return codeOf(QDBusError(reply), pid, eventClass, eventID);
    return KVAppleEvent::noErr;
}

// The exported object: turns each Send call into a delivery to the manager
// and the delivery's outcome into the reply.
class KVAppleEventReceiver : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.velmora.Events")

public:
    // Made on whichever thread first used the manager; it joins the manager
    // on the main thread, where the calls are to arrive.
    explicit KVAppleEventReceiver(KVAppleEventManager *manager) : m_manager(manager) {
        moveToThread(manager->thread());
        setParent(manager);
    }

public Q_SLOTS:
    Q_SCRIPTABLE void Send(const QString &eventClass, const QString &eventID,
                           const QString &directParameter) {
        const auto delivery = m_manager->deliver(eventClass, eventID, directParameter);
        // An event sent without waiting wants no answer, not even an error.
        if (!message().isReplyRequired()) return;
        switch (delivery) {
            case KVAppleEventManager::Delivery::Handled:
                break;
            case KVAppleEventManager::Delivery::NotHandled:
                sendErrorReply(kNotHandled,
                               QStringLiteral("no handler for %1/%2").arg(eventClass, eventID));
                break;
            case KVAppleEventManager::Delivery::BadEvent:
                sendErrorReply(kBadEvent,
                               QStringLiteral("event class and ID need four characters each"));
                break;
        }
    }

private:
    KVAppleEventManager *m_manager;
};

bool KVAppleEventPlatform::startReceiving(KVAppleEventManager *manager, QString *reason) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        *reason = bus.lastError().message();
        return false;
    }
    // The object first: once the name is owned, events may arrive.
    auto *receiver = new KVAppleEventReceiver(manager);
    if (!bus.registerObject(kObjectPath, receiver, QDBusConnection::ExportScriptableSlots)) {
        *reason = QStringLiteral("object path %1 is taken").arg(kObjectPath);
        delete receiver;
        return false;
    }
    if (!bus.registerService(serviceOf(getpid()))) {
        *reason = bus.lastError().message();
        bus.unregisterObject(kObjectPath);
        delete receiver;
        return false;
    }
    // Replies leave on the bus's own thread, so a handler that quits the
    // application could end the process before its reply is out. The bus
    // answers a call only after everything sent before it.
    QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, receiver, [] {
        QDBusConnection::sessionBus().call(callToTheBus("GetId"), QDBus::Block, 1000);
    });
    return true;
}

#include "KVAppleEvent_linux.moc"
