#include "BareWindow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

BareWindow::BareWindow() {
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(QStringLiteral("A window")));
    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(new QPushButton(QStringLiteral("Cancel")));
    buttons->addWidget(new QPushButton(QStringLiteral("Install")));
    layout->addLayout(buttons);
    resize(580, 400);
}

void BareWindow::paintEvent(QPaintEvent *event) {
    QWidget::paintEvent(event);
    if (!m_painted) {
        m_painted = true;
        emit firstPaint();
    }
}
