// The helper application "Micro": a window of a few pixels that takes the
// front and quits a moment later. Its opener waits meanwhile and then gives
// the front back to the application that had it, which window managers allow
// once the front has changed hands.
#include <QApplication>
#include <QTimer>
#include <QWidget>

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    QWidget window(nullptr, Qt::FramelessWindowHint);
    window.setGeometry(0, 0, 4, 4);
    window.show();
    window.activateWindow();
    // In front, it has done its work; should the window manager never make
    // it so, it still quits in time.
    QObject::connect(&app, &QGuiApplication::applicationStateChanged, &app,
                     [&app](Qt::ApplicationState state) {
                         if (state == Qt::ApplicationActive)
                             QTimer::singleShot(100, &app, &QCoreApplication::quit);
                     });
    QTimer::singleShot(2000, &app, &QCoreApplication::quit);
    return app.exec();
}
