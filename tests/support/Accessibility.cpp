#include "Accessibility.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

namespace {
const QString kAccessible = QStringLiteral("org.a11y.atspi.Accessible");
constexpr uint kRolePushButton = 43;

// The session bus names the accessibility bus, starting it when needed.
QDBusConnection accessibilityBus() {
    const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
        "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress"));
    const QString address = reply.arguments().value(0).toString();
    return QDBusConnection::connectToBus(address, "kv-accessibility-" + address);
}

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
        if (call(path, kAccessible, "GetRole").toUInt() == kRolePushButton &&
            call(path, "org.freedesktop.DBus.Properties", "Get", {kAccessible, QString("Name")})
                    .value<QDBusVariant>()
                    .variant()
                    .toString() == text)
            return path;
        // An array of (bus name, object path) pairs.
        const QDBusArgument children =
            call(path, kAccessible, "GetChildren").value<QDBusArgument>();
        if (children.currentType() != QDBusArgument::ArrayType) return {};
        children.beginArray();
        QString found;
        while (!children.atEnd()) {
            QString name;
            QDBusObjectPath child;
            children.beginStructure();
            children >> name >> child;
            children.endStructure();
            if (found.isNull()) found = findButton(child.path(), text);
        }
        children.endArray();
        return found;
    }
};
}  // namespace

bool Accessibility::pressButton(pid_t pid, const QString &text) {
    const QDBusConnection bus = accessibilityBus();
    if (!bus.isConnected()) return false;
    for (const QString &service : bus.interface()->registeredServiceNames().value()) {
        if (!service.startsWith(':') || bus.interface()->servicePid(service).value() != uint(pid))
            continue;
        const Object object{bus, service};
        const QString button = object.findButton("/org/a11y/atspi/accessible/root", text);
        // A button's first action is pressing it.
        if (!button.isNull())
            return object.call(button, "org.a11y.atspi.Action", "DoAction", {0}).toBool();
    }
    return false;
}
