// Notifications: who gets a post, and when the queue delivers it.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <thread>

#include "KVNotificationQueue.h"

namespace {
// Records what one observer saw, and on which thread.
struct Seen {
    QStringList changes;
    QList<QThread *> threads;
    int token = 0;
    Seen(const QString &name, const void *object) {
        token = KVNotificationCenter::defaultCenter().addObserver(
            name, object, [this](const KVNotification &n) {
                changes << n.userInfo.value("change").toString();
                threads << QThread::currentThread();
            });
    }
    ~Seen() { KVNotificationCenter::defaultCenter().removeObserver(token); }
};
const char senderA = 0, senderB = 0;
void enqueue(const QString &name, const void *object, const QString &change) {
    KVNotificationQueue::defaultQueue().enqueueNotification({name, object, {{"change", change}}});
}
}  // namespace

TEST(KVNotificationTest, CenterCallsObserversOfTheNameAndSender) {
    Seen any("N", nullptr), onlyA("N", &senderA), other("M", nullptr);
    KVNotificationCenter::defaultCenter().postNotification({"N", &senderB, {{"change", "b"}}});
    KVNotificationCenter::defaultCenter().postNotification({"N", &senderA, {{"change", "a"}}});
    EXPECT_EQ(any.changes, QStringList({"b", "a"}));
    EXPECT_EQ(onlyA.changes, QStringList({"a"}));
    EXPECT_TRUE(other.changes.isEmpty());

    // An observer removed by an earlier observer of the same post is not called.
    int second = 0, calls = 0;
    const int first = KVNotificationCenter::defaultCenter().addObserver(
        "R", nullptr, [&](const KVNotification &) {
            ++calls;
            KVNotificationCenter::defaultCenter().removeObserver(second);
        });
    second = KVNotificationCenter::defaultCenter().addObserver(
        "R", nullptr, [&](const KVNotification &) { ++calls; });
    KVNotificationCenter::defaultCenter().postNotification({"R", nullptr, {}});
    KVNotificationCenter::defaultCenter().removeObserver(first);
    EXPECT_EQ(calls, 1);
}

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
    for (QThread *thread : seen.threads) EXPECT_EQ(thread, QCoreApplication::instance()->thread());

    // Once delivered, the same name and sender go through again; one enqueued
    // by an observer comes on a later turn, not inside the delivery.
    const int token = KVNotificationCenter::defaultCenter().addObserver(
        "Q", &senderA, [](const KVNotification &n) {
            if (n.userInfo.value("change") == "6") enqueue("Q", &senderA, "7");
        });
    enqueue("Q", &senderA, "6");
    QCoreApplication::processEvents();
    EXPECT_EQ(seen.changes.mid(3), QStringList({"6"}));
    QCoreApplication::processEvents();
    KVNotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(seen.changes.mid(3), QStringList({"6", "7"}));
}
