// Real windows for the window tests; prints "ready" once all are on screen.
//   --title NAME     numbered "NAME 1", "NAME 2", ... when there are several
//   --windows N      that many (default 1)
//   --cycle-focus    the first holds line edits "first" and "second" and a
//                    slider; every 50 ms the focus moves and the value changes
#include <QApplication>
#include <QLineEdit>
#include <QSlider>
#include <QTimer>
#include <QVBoxLayout>
#include <QWindow>
#include <cstdio>

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const auto valueOf = [&](const char *option) {
        const qsizetype at = arguments.indexOf(option);
        return at > 0 ? arguments.value(at + 1) : QString();
    };
    const QString title = valueOf("--title").isEmpty() ? "kvtest_window" : valueOf("--title");
    const int count = qMax(1, valueOf("--windows").toInt());
    std::vector<std::unique_ptr<QWidget>> windows;
    for (int i = 0; i < count; ++i) {
        auto &window = windows.emplace_back(std::make_unique<QWidget>());
        window->setWindowTitle(count == 1 ? title : QStringLiteral("%1 %2").arg(title).arg(i + 1));
        window->setGeometry(40 + 60 * i, 40 + 40 * i, 240, 160);
        window->show();
    }
    QTimer cycle;
    if (arguments.contains("--cycle-focus")) {
        auto *layout = new QVBoxLayout(windows.front().get());
        auto *first = new QLineEdit, *second = new QLineEdit;
        auto *slider = new QSlider(Qt::Horizontal);
        first->setAccessibleName("first");
        second->setAccessibleName("second");
        for (QWidget *widget : {(QWidget *)first, (QWidget *)second, (QWidget *)slider})
            layout->addWidget(widget);
        QObject::connect(&cycle, &QTimer::timeout, [=] {
            (first->hasFocus() ? second : first)->setFocus();
            slider->setValue((slider->value() + 1) % 100);
        });
        cycle.start(50);
    }
    // Exposed once the window manager has mapped them.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        for (const auto &window : windows)
            if (!window->windowHandle() || !window->windowHandle()->isExposed()) return;
        poll.stop();
        std::puts("ready");
        std::fflush(stdout);
    });
    poll.start(10);
    return app.exec();
}
