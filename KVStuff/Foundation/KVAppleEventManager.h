// Receiving events: a handler per event class and ID, called on the main
// thread with the event's direct parameter. On Linux the process owns the
// session-bus name "org.velmora.events.p<PID>" and exports the object
// "/org/velmora/events", interface "org.velmora.Events", method
// Send(s eventClass, s eventID, s directParameter); class and ID travel as
// their four characters.
//
// 'aevt'/'quit' quits the application until another handler replaces it: the
// platform's programs all answer that event, and quitting a running copy falls
// back on it. Without a session bus receiving is off, which is logged once.
#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "KVCompatibility.h"

class KVAppleEventReceiver;

class KVAppleEventManager : public QObject {
    Q_OBJECT

public:
    using Handler = std::function<void(const QString &directParameter)>;

    // Created on first use, on any thread; it lives on the main thread.
    static KVAppleEventManager &sharedManager();

    // Replaces an earlier handler for the pair; an empty handler removes it.
    // False when events cannot arrive (no session bus); nothing is installed then.
    bool setEventHandler(OSType eventClass, OSType eventID, Handler handler);
    void removeEventHandler(OSType eventClass, OSType eventID);
    bool isReceiving() const { return m_receiving; }

private:
    friend class KVAppleEventReceiver;
    enum class Delivery { Handled, NotHandled, BadEvent };

    KVAppleEventManager();
    // Runs on the main thread for each event that arrives.
    Delivery deliver(const QString &eventClass, const QString &eventID,
                     const QString &directParameter);

    bool m_receiving = false;
    std::mutex m_mutex;  // guards m_handlers: handlers are set from any thread
    std::map<std::pair<OSType, OSType>, Handler> m_handlers;
};
