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

// The bus itself answers these at once. The unique name of the connection
// that owns the service; a null string when nobody does.
QString ownerOf(const QDBusConnection &connection, const QString &service) {
    const QDBusMessage answer =
        connection.call(callToTheBus("GetNameOwner") << service, QDBus::Block);
    if (answer.type() != QDBusMessage::ReplyMessage) return QString();
    return answer.arguments().value(0).toString();
}

pid_t pidOfConnection(const QDBusConnection &connection, const QString &uniqueName) {
    const QDBusMessage answer =
        connection.call(callToTheBus("GetConnectionUnixProcessID") << uniqueName, QDBus::Block);
    if (answer.type() != QDBusMessage::ReplyMessage) return 0;
    return pid_t(answer.arguments().value(0).toUInt());
}

}  // namespace

int KVAppleEventPlatform::send(pid_t pid, const std::function<bool()> &isThatProcess,
                               const QString &eventClass, const QString &eventID,
                               const QString &directParameter, int timeoutMilliseconds) {
    QDBusConnection connection = senderConnection();
    if (!connection.isConnected()) return KVAppleEvent::connectionInvalid;
    // A name without owner is no program to start: it simply is not running.
    const QString owner = ownerOf(connection, serviceOf(pid));
    if (owner.isEmpty()) return KVAppleEvent::procNotFound;
    // The process is checked once its connection is known: should it end
    // after the check, its connection ends with it, and a program that then
    // takes the pid and the name has another connection, which this event
    // never reaches.
    if (isThatProcess && (pidOfConnection(connection, owner) != pid || !isThatProcess()))
        return KVAppleEvent::procNotFound;
    QDBusMessage event = QDBusMessage::createMethodCall(owner, kObjectPath, kInterface, "Send");
    event << eventClass << eventID << directParameter;
    event.setAutoStartService(false);

    // send() marks the call as wanting no reply, so the receiver sends none.
    if (timeoutMilliseconds == 0)
        return connection.send(event) ? KVAppleEvent::noErr : KVAppleEvent::connectionInvalid;
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
