#include "KVAppleEventManager.h"

#include <QCoreApplication>

#include "KVAppleEvent_p.h"
#include "KVFourCharCode.h"
#include "KVLog.h"

KVAppleEventManager &KVAppleEventManager::sharedManager() {
    // Never deleted: handlers may be asked for until the process ends.
    static KVAppleEventManager *const manager = new KVAppleEventManager;
    return *manager;
}

KVAppleEventManager::KVAppleEventManager() {
    QCoreApplication *app = QCoreApplication::instance();
    if (!app) {
        kvLog("cannot receive Apple events: %@", QString("no application object"));
        return;
    }
    if (thread() != app->thread()) moveToThread(app->thread());
    // In place before the name is taken, so that no early 'quit' goes unanswered.
    m_handlers[{KVFourCharCode::fromString("aevt"), KVFourCharCode::fromString("quit")}] =
        [](const QString &) {
            if (QCoreApplication::instance()) QCoreApplication::quit();
        };
    QString reason;
    m_receiving = KVAppleEventPlatform::startReceiving(this, &reason);
    if (!m_receiving) kvLog("cannot receive Apple events: %@", reason);
}

bool KVAppleEventManager::setEventHandler(OSType eventClass, OSType eventID, Handler handler) {
    if (!handler) {
        removeEventHandler(eventClass, eventID);
        return m_receiving;
    }
    if (!m_receiving) return false;
    std::lock_guard locker(m_mutex);
    m_handlers[{eventClass, eventID}] = std::move(handler);
    return true;
}

void KVAppleEventManager::removeEventHandler(OSType eventClass, OSType eventID) {
    std::lock_guard locker(m_mutex);
    m_handlers.erase({eventClass, eventID});
}

KVAppleEventManager::Delivery KVAppleEventManager::deliver(const QString &eventClass,
                                                           const QString &eventID,
                                                           const QString &directParameter) {
    const OSType classCode = KVFourCharCode::fromString(eventClass);
    const OSType idCode = KVFourCharCode::fromString(eventID);
    if (classCode == 0 || idCode == 0) return Delivery::BadEvent;
    Handler handler;
    {
        std::lock_guard locker(m_mutex);
        const auto found = m_handlers.find({classCode, idCode});
        if (found == m_handlers.end()) return Delivery::NotHandled;
        handler = found->second;
    }
    // Called unlocked, so that a handler may replace or remove handlers.
    handler(directParameter);
    return Delivery::Handled;
}
