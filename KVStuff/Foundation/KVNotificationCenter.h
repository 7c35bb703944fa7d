// In-process notifications: observers register for a name and, optionally,
// one sender; a post calls every matching observer on the posting thread.
#pragma once

#include <QString>
#include <QVariantMap>
#include <functional>
#include <memory>

struct KVNotification {
    QString name;
    // The sender: a record, a class tag, or null for none. Compared by
    // address only, never dereferenced.
    const void *object = nullptr;
    QVariantMap userInfo;
};

class KVNotificationCenter {
public:
    using Observer = std::function<void(const KVNotification &)>;

    static KVNotificationCenter &defaultCenter();

    // A null object observes every sender. The token is never 0. Safe from
    // any thread.
    int addObserver(const QString &name, const void *object, Observer observer);
    // After it returns, the observer is not called again, not even by a post
    // that is running on another thread or that called it.
    void removeObserver(int token);
    void postNotification(const KVNotification &notification);

    KVNotificationCenter();
    ~KVNotificationCenter();

private:
    struct Private;
    std::unique_ptr<Private> d;
};
