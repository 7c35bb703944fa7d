// Notifications posted "as soon as possible": through the default centre on
// the next turn of the main event loop, so observers never run inside the
// caller (an X or accessibility callback). While one notification waits, a
// second with the same name and sender is dropped.
#pragma once

#include <memory>

#include "KVNotificationCenter.h"

class KVNotificationQueue {
public:
    static KVNotificationQueue &defaultQueue();

    // Safe from any thread. Without an application object nothing is
    // delivered until one exists and a later notification is enqueued.
    void enqueueNotification(const KVNotification &notification);

    KVNotificationQueue();
    ~KVNotificationQueue();

private:
    void flush();

    struct Private;
    std::unique_ptr<Private> d;
};
