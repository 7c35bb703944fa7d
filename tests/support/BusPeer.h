// Another peer on the session bus: one object exported under a service name,
// served from a thread and a connection of its own, so that the test's main
// thread may block on a call to it.
#pragma once

#include <sys/file.h>

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QFile>
#include <QThread>
#include <memory>

// CTest runs tests in parallel on one session bus: those that own a desktop
// service's name, or count on nobody owning it, take turns while they live.
class BusNamesTurn {
public:
    BusNamesTurn() {
        if (m_lock.open(QIODevice::ReadWrite)) flock(m_lock.handle(), LOCK_EX);
    }

private:
    QFile m_lock{
        "/tmp/kvtest-bus-" +
        QCryptographicHash::hash(qgetenv("DBUS_SESSION_BUS_ADDRESS"), QCryptographicHash::Md5)
            .toHex() +
        ".lock"};
};

class BusPeer {
public:
    // Takes the object, which answers from the peer's thread.
    BusPeer(QObject *object, const QString &service, const QString &path)
        : m_object(object),
          m_service(service),
          m_path(path),
          m_connectionName(QStringLiteral("kvtest-peer-%1").arg(quintptr(this))) {
        QDBusConnection bus =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, m_connectionName);
        // Registered before it moves, since registering gives it children.
        m_registered = bus.registerObject(
            path, object, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties);
        m_object->moveToThread(&m_thread);
        m_thread.start();
        m_registered = m_registered && bus.registerService(service);
    }
    ~BusPeer() {
        QDBusConnection bus(m_connectionName);
        bus.unregisterService(m_service);
        bus.unregisterObject(m_path);
        QDBusConnection::disconnectFromBus(m_connectionName);
        // Ends in its own thread, which deletes it as it finishes.
        m_object.release()->deleteLater();
        m_thread.quit();
        m_thread.wait();
    }

    bool registered() const { return m_registered; }

private:
    QThread m_thread;
    std::unique_ptr<QObject> m_object;
    const QString m_service, m_path, m_connectionName;
    bool m_registered = false;
};
