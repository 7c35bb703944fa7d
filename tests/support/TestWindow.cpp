// A real program with real top-level windows for the window-server tests.
// It shows its windows, writes "ready" to standard output once all of them
// are on screen, and runs until it is killed.
//   --title NAME  window title; with several windows "NAME 1", "NAME 2", ...
//   --windows N   number of top-level windows (default 1)
//   --fullscreen  the windows fill the screen
//   --grab-keyboard  the first window holds the keyboard grabbed, as a
//                 password dialog does ("ready" only once it holds it)
//   --cycle-focus the first window holds two line edits named "first" and
//                 "second" and a slider; every 50 ms the focus moves to the
//                 other line edit and the slider's value changes
#include <QApplication>
#include <QLineEdit>
#include <QSlider>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>
#include <cstdio>
#include <memory>
#include <vector>

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    QString title = QStringLiteral("kvtest_window");
    int count = 1;
    const QStringList arguments = app.arguments();
    const bool fullScreen = arguments.contains(QLatin1String("--fullscreen"));
    const bool grabKeyboard = arguments.contains(QLatin1String("--grab-keyboard"));
    const bool cycleFocus = arguments.contains(QLatin1String("--cycle-focus"));
    for (qsizetype i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == QLatin1String("--title"))
            title = arguments[++i];
        else if (arguments[i] == QLatin1String("--windows"))
            count = qMax(1, arguments[++i].toInt());
    }

    std::vector<std::unique_ptr<QWidget>> windows;
    for (int i = 0; i < count; ++i) {
        auto window = std::make_unique<QWidget>();
        window->setWindowTitle(count == 1 ? title : QStringLiteral("%1 %2").arg(title).arg(i + 1));
        window->setGeometry(40 + 60 * i, 40 + 40 * i, 240, 160);
        fullScreen ? window->showFullScreen() : window->show();
        windows.push_back(std::move(window));
    }

    QTimer cycle;
    if (cycleFocus) {
        auto *layout = new QVBoxLayout(windows.front().get());
        auto *first = new QLineEdit, *second = new QLineEdit;
        auto *slider = new QSlider(Qt::Horizontal);
        first->setAccessibleName(QStringLiteral("first"));
        second->setAccessibleName(QStringLiteral("second"));
        for (QWidget *widget : {static_cast<QWidget *>(first), static_cast<QWidget *>(second),
                                static_cast<QWidget *>(slider)})
            layout->addWidget(widget);
        QObject::connect(&cycle, &QTimer::timeout, [=] {
            (first->hasFocus() ? second : first)->setFocus();
            slider->setValue((slider->value() + 1) % 100);
        });
        cycle.start(50);
    }

    // A window is exposed once the window manager has mapped it.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        for (const auto &window : windows)
            if (!window->windowHandle() || !window->windowHandle()->isExposed()) return;
        // Another client may hold the keyboard for a moment: try again.
        if (grabKeyboard && !windows.front()->windowHandle()->setKeyboardGrabEnabled(true)) return;
        poll.stop();
        std::fputs("ready\n", stdout);
        std::fflush(stdout);
    });
    poll.start(10);
    return app.exec();
}
