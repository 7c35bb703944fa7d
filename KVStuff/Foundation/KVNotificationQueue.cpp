#include "KVNotificationQueue.h"

#include <QCoreApplication>
#include <QMutex>
#include <QPointer>
#include <vector>

struct KVNotificationQueue::Private {
    QMutex lock;
    std::vector<KVNotification> pending;
    bool flushScheduled = false;
};

KVNotificationQueue::KVNotificationQueue() : d(std::make_unique<Private>()) {}
KVNotificationQueue::~KVNotificationQueue() = default;

KVNotificationQueue &KVNotificationQueue::defaultQueue() {
    // Never destroyed: a queued flush may still run while statics go away.
    static auto *queue = new KVNotificationQueue;
    return *queue;
}

void KVNotificationQueue::enqueueNotification(const KVNotification &notification) {
    QMutexLocker locker(&d->lock);
    const bool waiting =
        std::any_of(d->pending.begin(), d->pending.end(), [&](const KVNotification &n) {
            return n.name == notification.name && n.object == notification.object;
        });
    if (!waiting) d->pending.push_back(notification);
    QCoreApplication *app = QCoreApplication::instance();
    if (d->flushScheduled || !app) return;
    d->flushScheduled = true;
    // The application object lives on the main thread, so a queued call to it
    // runs there on the loop's next turn, whichever thread enqueued.
    QMetaObject::invokeMethod(
        app, [this] { flush(); }, Qt::QueuedConnection);
}

void KVNotificationQueue::flush() {
    std::vector<KVNotification> due;
    {
        QMutexLocker locker(&d->lock);
        due.swap(d->pending);
        d->flushScheduled = false;
    }
    for (const KVNotification &notification : due)
        KVNotificationCenter::defaultCenter().postNotification(notification);
}
