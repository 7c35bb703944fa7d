#include "KVNotificationCenter.h"

#include <QMutex>
#include <QRecursiveMutex>
#include <vector>

namespace {
struct Registration {
    int token;
    QString name;
    const void *object;
    std::shared_ptr<KVNotificationCenter::Observer> observer;
};
}  // namespace

struct KVNotificationCenter::Private {
    QMutex lock;
    // Held while an observer runs, so removeObserver can wait out a call in
    // progress on another thread; recursive because an observer may post.
    QRecursiveMutex calling;
    std::vector<Registration> registrations;
    int lastToken = 0;
};

KVNotificationCenter::KVNotificationCenter() : d(std::make_unique<Private>()) {}
KVNotificationCenter::~KVNotificationCenter() = default;

KVNotificationCenter &KVNotificationCenter::defaultCenter() {
    // Never destroyed: observers may post from other threads during exit.
    static auto *center = new KVNotificationCenter;
    return *center;
}

int KVNotificationCenter::addObserver(const QString &name, const void *object, Observer observer) {
    QMutexLocker locker(&d->lock);
    const int token = ++d->lastToken;
    d->registrations.push_back(
        {token, name, object, std::make_shared<Observer>(std::move(observer))});
    return token;
}

void KVNotificationCenter::removeObserver(int token) {
    QMutexLocker calling(&d->calling);
    QMutexLocker locker(&d->lock);
    std::erase_if(d->registrations, [token](const Registration &r) { return r.token == token; });
}

void KVNotificationCenter::postNotification(const KVNotification &notification) {
    QMutexLocker calling(&d->calling);
    std::vector<std::pair<int, std::shared_ptr<Observer>>> matching;
    {
        QMutexLocker locker(&d->lock);
        for (const Registration &r : d->registrations)
            if (r.name == notification.name && (!r.object || r.object == notification.object))
                matching.emplace_back(r.token, r.observer);
    }
    for (const auto &match : matching) {
        // Not a structured binding: clang before 16 cannot capture one.
        const int token = match.first;
        const std::shared_ptr<Observer> &observer = match.second;
        // An earlier observer of this post may have removed this one.
        bool registered;
        {
            QMutexLocker locker(&d->lock);
            registered = std::any_of(d->registrations.begin(), d->registrations.end(),
                                     [token](const Registration &r) { return r.token == token; });
        }
        if (registered) (*observer)(notification);
    }
}
