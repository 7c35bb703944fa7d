// A real program that receives events for the event tests. It prints "ready"
// once its bus name is owned (or "not receiving" when there is no bus) and one
// line per event it handles:
//   TEST/Echo        prints "received TEST Echo <parameter>"
//   TEST/Slow        sleeps <parameter> milliseconds, then prints like Echo;
//                    bounded, so the receiver answers again afterwards
//   --send PID CLASS ID TIMEOUT_MS PARAMETER
//                    sends one event at start and prints "sent <result>"
// 'aevt'/'quit' (the manager's own handler) and SIGTERM end it with status 0.
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <csignal>
#include <cstdio>
#include <thread>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVFourCharCode.h"

namespace {
int s_termPipe[2] = {-1, -1};

void say(const QString &line) {
    std::fputs((line + '\n').toUtf8().constData(), stdout);
    std::fflush(stdout);
}

OSType code(const QString &text) { return KVFourCharCode::fromString(text); }

// SIGTERM quits through the event loop, so that it ends like the quit event.
void quitOnSigterm(QCoreApplication &app) {
    if (pipe(s_termPipe) != 0) return;
    std::signal(SIGTERM, [](int) { (void)!write(s_termPipe[1], "t", 1); });
    auto *notifier = new QSocketNotifier(s_termPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
}
}  // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    quitOnSigterm(app);
    // First use on another thread, which the manager must hand to the main one.
    std::thread([] { KVAppleEventManager::sharedManager(); }).join();
    KVAppleEventManager &manager = KVAppleEventManager::sharedManager();
    manager.setEventHandler(code("TEST"), code("Echo"), [](const QString &parameter) {
        say("received TEST Echo " + parameter);
    });
    manager.setEventHandler(code("TEST"), code("Slow"), [](const QString &parameter) {
        QThread::msleep(parameter.toULong());
        say("received TEST Slow " + parameter);
    });

    say(manager.isReceiving() ? "ready" : "not receiving");
    const QStringList arguments = app.arguments();
    for (qsizetype i = arguments.indexOf("--send"); i > 0 && i + 5 < arguments.size();
         i = arguments.indexOf("--send", i + 6)) {
        const int result =
            KVAppleEvent::send(pid_t(arguments[i + 1].toInt()), code(arguments[i + 2]),
                               code(arguments[i + 3]), arguments[i + 5], arguments[i + 4].toInt());
        say(QString("sent %1").arg(result));
    }
    return app.exec();
}
