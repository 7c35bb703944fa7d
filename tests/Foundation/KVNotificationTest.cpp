// Notifications: who gets a post, and when the queue delivers it.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <thread>

#include "KVNotificationQueue.h"

namespace {
KVNotificationCenter &center() { return KVNotificationCenter::defaultCenter(); }
// What one observer saw, and on which thread.
struct Seen {
    QStringList changes;
    QList<QThread *> threads;
    const int token;
    Seen(const QString &name, const void *object)
        : token(center().addObserver(name, object, [this](const KVNotification &n) {
              changes << n.userInfo.value("change").toString();
              threads << QThread::currentThread();
          })) {}
    ~Seen() { center().removeObserver(token); }
};
const char senderA = 0, senderB = 0;
void enqueue(const QString &name, const void *object, const QString &change) {
    KVNotificationQueue::defaultQueue().enqueueNotification({name, object, {{"change", change}}});
}
}  // namespace

// An observer removed by an earlier observer of the same post is not called.
TEST(KVNotificationTest, CenterCallsObserversOfTheNameAndSender) {
    Seen any("N", nullptr), onlyA("N", &senderA), other("M", nullptr);
    center().postNotification({"N", &senderB, {{"change", "b"}}});
    center().postNotification({"N", &senderA, {{"change", "a"}}});
    EXPECT_EQ(any.changes + onlyA.changes + other.changes, QStringList({"b", "a", "a"}));
    int second = 0, calls = 0;
    const int first = center().addObserver("R", nullptr, [&](const KVNotification &) {
        ++calls;
        center().removeObserver(second);
    });
    second = center().addObserver("R", nullptr, [&](const KVNotification &) { ++calls; });
    center().postNotification({"R", nullptr, {}});
    center().removeObserver(first);
    EXPECT_EQ(calls, 1);
}

// Once delivered, the same name and sender go through again; one enqueued by
// an observer comes on a later turn, not inside the delivery.
TEST(KVNotificationTest, QueueDeliversLaterOnTheMainThreadCoalescedByNameAndSender) {
    Seen seen("Q", nullptr);
    enqueue("Q", &senderA, "1");
    enqueue("Q", &senderA, "2");  // waits behind "1" with the same sender: dropped
    enqueue("Q", &senderB, "3");
    std::thread([] {
        enqueue("Q", &senderB, "4");
        enqueue("Q", nullptr, "5");
    }).join();
    EXPECT_TRUE(seen.changes.isEmpty()) << "delivered inside the caller";
    QCoreApplication::processEvents();
    EXPECT_EQ(seen.changes, QStringList({"1", "3", "5"}));
    EXPECT_EQ(seen.threads, QList<QThread *>(3, QCoreApplication::instance()->thread()));
    const int token = center().addObserver("Q", &senderA, [](const KVNotification &n) {
        if (n.userInfo.value("change") == "6") enqueue("Q", &senderA, "7");
    });
    enqueue("Q", &senderA, "6");
    QCoreApplication::processEvents();
    EXPECT_EQ(seen.changes.mid(3), QStringList({"6"}));
    QCoreApplication::processEvents();
    center().removeObserver(token);
    EXPECT_EQ(seen.changes.mid(3), QStringList({"6", "7"}));
}
