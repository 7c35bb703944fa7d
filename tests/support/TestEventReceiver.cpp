// A real program that receives events, for the event tests and for trying the
// bus by hand. It prints "ready" once its bus name is owned (or "not
// receiving" when there is no bus) and one line per event it handles:
//   TEST/Echo        prints "received TEST Echo <parameter>"
//   TEST/Slow        sleeps <parameter> milliseconds, then prints like Echo;
//                    bounded, so the receiver answers again afterwards
//   --echo CLASS ID  echoes that pair as well
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

KVAppleEventManager::Handler echo(const QString &eventClass, const QString &eventID) {
    return [=](const QString &parameter) {
        say(QString("received %1 %2 %3").arg(eventClass, eventID, parameter));
    };
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
    manager.setEventHandler(code("TEST"), code("Echo"), echo("TEST", "Echo"));
    manager.setEventHandler(code("TEST"), code("Slow"), [](const QString &parameter) {
        QThread::msleep(parameter.toULong());
        say("received TEST Slow " + parameter);
    });

    const QStringList arguments = app.arguments();
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        if (arguments[i] == "--echo" && i + 2 < arguments.size()) {
            manager.setEventHandler(code(arguments[i + 1]), code(arguments[i + 2]),
                                    echo(arguments[i + 1], arguments[i + 2]));
            i += 2;
        }
    }
    say(manager.isReceiving() ? "ready" : "not receiving");

    for (qsizetype i = 1; i < arguments.size(); ++i) {
        if (arguments[i] == "--send" && i + 5 < arguments.size()) {
            const int result = KVAppleEvent::send(pid_t(arguments[i + 1].toInt()),
                                                  code(arguments[i + 2]), code(arguments[i + 3]),
                                                  arguments[i + 5], arguments[i + 4].toInt());
            say(QString("sent %1").arg(result));
            i += 5;
        }
    }
    return app.exec();
}
