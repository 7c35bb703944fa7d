// Another application's user interface as the desktop's accessibility
// service shows it: its application element, and an observer that reports
// what happens in it. On Linux this is AT-SPI2 on the accessibility bus.
//
// Main thread only: the bus traffic runs on the main event loop, and every
// call made on another thread fails (a null element, no observer). Elements
// may be copied and dropped anywhere; their last release happens on the main
// thread.
#pragma once

#include <sys/types.h>

#include <QMetaType>
#include <QString>
#include <functional>
#include <memory>

// One element of another application's interface, as carried in the
// "element" value of a notification. It holds the element itself, not a
// snapshot, so that a reader asks only for what it needs, and only when it
// needs it; two copies of one element compare equal.
class KVAccessibilityElement {
public:
    KVAccessibilityElement() = default;
    // Takes over one reference to the platform's element object.
    explicit KVAccessibilityElement(void *element);

    bool isNull() const { return !m_element; }
    // Asked of the application when called; null strings for a null element,
    // off the main thread or when the application does not answer.
    QString name() const;
    QString role() const;
    // The platform's element object, owned by this value.
    void *handle() const { return m_element.get(); }

    friend bool operator==(const KVAccessibilityElement &a, const KVAccessibilityElement &b) {
        return a.m_element == b.m_element;
    }

private:
    std::shared_ptr<void> m_element;
};
Q_DECLARE_METATYPE(KVAccessibilityElement)

namespace KVAccessibility {

// The element of the application whose accessibility connection belongs to
// the process; null when there is none or no accessibility service.
KVAccessibilityElement applicationElement(pid_t pid);

// Reports notifications of one application. Names are those of the
// library's callers ("AXFocusedUIElementChanged", "AXValueChanged", ...);
// any other name is taken as the platform's own event type.
class Observer {
public:
    // element: the one the notification concerns, null when there is none.
    using Handler = std::function<void(const KVAccessibilityElement &element, const QString &name)>;

    // Null when the application element is null or no observer can be made.
    static std::unique_ptr<Observer> create(const KVAccessibilityElement &application,
                                            Handler handler);
    virtual ~Observer() = default;

    // Whether the notification is now reported.
    virtual bool addNotification(const QString &name) = 0;
    virtual void removeNotification(const QString &name) = 0;
    // From any thread: the handler is not called again. The observer itself
    // must still be destroyed, which releaseOnMainThread() does from anywhere.
    virtual void stop() = 0;

    static void releaseOnMainThread(std::unique_ptr<Observer> observer);
};

}  // namespace KVAccessibility
