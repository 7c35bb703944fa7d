#include "Accessibility.h"

#include <QDBusArgument>
#include <QDBusConnection>
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

QList<QVariant> call(const QDBusConnection &bus, const QString &service, const QString &path,
                     const QString &interface, const QString &method,
                     const QList<QVariant> &arguments = {}) {
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus.call(message, QDBus::Block, 5000);
    return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments() : QList<QVariant>();
}

QStringList childrenOf(const QDBusConnection &bus, const QString &service, const QString &path) {
    QStringList children;
    const QList<QVariant> reply = call(bus, service, path, kAccessible, "GetChildren");
    if (reply.isEmpty()) return children;
    // An array of (bus name, object path) pairs.
    const QDBusArgument list = reply.first().value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        QString name;
        QDBusObjectPath child;
        list.beginStructure();
        list >> name >> child;
        list.endStructure();
        children << child.path();
    }
    list.endArray();
    return children;
}

bool isButtonWithText(const QDBusConnection &bus, const QString &service, const QString &path,
                      const QString &text) {
    const QList<QVariant> role = call(bus, service, path, kAccessible, "GetRole");
    if (role.isEmpty() || role.first().toUInt() != kRolePushButton) return false;
    const QList<QVariant> name = call(bus, service, path, "org.freedesktop.DBus.Properties", "Get",
                                      {kAccessible, QStringLiteral("Name")});
    return !name.isEmpty() && name.first().value<QDBusVariant>().variant().toString() == text;
}

QString findButton(const QDBusConnection &bus, const QString &service, const QString &path,
                   const QString &text) {
    if (isButtonWithText(bus, service, path, text)) return path;
    for (const QString &child : childrenOf(bus, service, path)) {
        const QString found = findButton(bus, service, child, text);
        if (!found.isNull()) return found;
    }
    return {};
}

}  // namespace

bool Accessibility::pressButton(pid_t pid, const QString &text) {
    const QDBusConnection bus = accessibilityBus();
    if (!bus.isConnected()) return false;
    for (const QString &service : bus.interface()->registeredServiceNames().value()) {
        if (!service.startsWith(':') || bus.interface()->servicePid(service).value() != uint(pid))
            continue;
        const QString button =
            findButton(bus, service, QStringLiteral("/org/a11y/atspi/accessible/root"), text);
        // A button's first action is pressing it.
        if (!button.isNull())
            return call(bus, service, button, "org.a11y.atspi.Action", "DoAction", {0})
                .value(0)
                .toBool();
    }
    return false;
}
