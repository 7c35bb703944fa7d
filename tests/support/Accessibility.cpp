#include "Accessibility.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

namespace {
const QString kAccessible = QStringLiteral("org.a11y.atspi.Accessible");

struct Object {
    const QDBusConnection &bus;
    const QString &service;

    QVariant call(const QString &path, const QString &interface, const QString &method,
                  const QList<QVariant> &arguments = {}) const {
        QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
        message.setArguments(arguments);
        const QDBusMessage reply = bus.call(message, QDBus::Block, 5000);
        return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0) : QVariant();
    }
    QString findButton(const QString &path, const QString &text) const {
        const QVariant name =
            call(path, "org.freedesktop.DBus.Properties", "Get", {kAccessible, "Name"});
        if (qvariant_cast<QDBusVariant>(name).variant() == text &&
            call(path, kAccessible, "GetRole").toUInt() == 43 /* push button */)
            return path;
        // (bus name, object path) pairs
        const QDBusArgument children =
            call(path, kAccessible, "GetChildren").value<QDBusArgument>();
        if (children.currentType() != QDBusArgument::ArrayType) return {};
        QString found, owner;
        QDBusObjectPath child;
        for (children.beginArray(); !children.atEnd();) {
            children.beginStructure();
            children >> owner >> child;
            children.endStructure();
            if (found.isNull()) found = findButton(child.path(), text);
        }
        children.endArray();
        return found;
    }
};
}  // namespace

bool Accessibility::pressButton(pid_t pid, const QString &text) {
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress"));
    const QString address = reply.arguments().value(0).toString();
    const QDBusConnection bus = QDBusConnection::connectToBus(address, "kv-a11y-" + address);
    if (!bus.isConnected()) return false;
    for (const QString &service : bus.interface()->registeredServiceNames().value()) {
        if (!service.startsWith(':') || bus.interface()->servicePid(service).value() != uint(pid))
            continue;
        const Object object{bus, service};
        const QString button = object.findButton("/org/a11y/atspi/accessible/root", text);
        if (!button.isNull())  // a button's first action presses it
            return object.call(button, "org.a11y.atspi.Action", "DoAction", {0}).toBool();
    }
    return false;
}
