// Another peer on the session bus: one object exported under a service name,
// served from a thread and a connection of its own, so that the test's main
// thread may block on a call to it.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QFile>
#include <QObject>
#include <QThread>
#include <memory>

// CTest runs tests in parallel on one session bus: those that own a desktop
// service's name, or count on nobody owning it, take turns while they live.
class BusNamesTurn {
public:
    BusNamesTurn() {
        const QByteArray bus =
            QCryptographicHash::hash(qgetenv("DBUS_SESSION_BUS_ADDRESS"), QCryptographicHash::Md5)
                .toHex();
        m_lock = ::open(QFile::encodeName(
                            QStringLiteral("/tmp/kvtest-bus-%1.lock").arg(QString::fromLatin1(bus)))
                            .constData(),
                        O_CREAT | O_RDWR | O_CLOEXEC, 0600);
        if (m_lock >= 0) ::flock(m_lock, LOCK_EX);
    }
    ~BusNamesTurn() {
        if (m_lock >= 0) ::close(m_lock);
    }
    BusNamesTurn(const BusNamesTurn &) = delete;
    BusNamesTurn &operator=(const BusNamesTurn &) = delete;

private:
    int m_lock = -1;
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
    BusPeer(const BusPeer &) = delete;
    BusPeer &operator=(const BusPeer &) = delete;

    bool registered() const { return m_registered; }

private:
    QThread m_thread;
    std::unique_ptr<QObject> m_object;
    QString m_service;
    QString m_path;
    QString m_connectionName;
    bool m_registered = false;
};
