#include "InstallerWindow.h"

#include <QCloseEvent>

InstallerWindow::InstallerWindow(QWidget *parent) : QDialog(parent) {
    // A top-level application window, not a transient dialog: it gets a
    // minimize box and closing it ends the program.
    setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                   Qt::WindowMinimizeButtonHint);
}

void InstallerWindow::reject() { emit cancelRequested(); }

void InstallerWindow::closeEvent(QCloseEvent *event) {
    // Not the dialog's own handling (which would reject, that is, cancel).
    QWidget::closeEvent(event);
}

void InstallerWindow::paintEvent(QPaintEvent *event) {
    QDialog::paintEvent(event);
    if (!m_painted) {
        m_painted = true;
        emit firstPaint();
    }
}
