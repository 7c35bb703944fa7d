// The installer's window as a PNG in KV_SCREENSHOT_DIR, for scripts/screenshots;
// nothing without it. A visible sheet is drawn hanging from the window's title.
#pragma once

#include <QDir>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>

#include "InstallerWinController.h"

inline void windowShot(const InstallerWinController &controller, const QString &name) {
    const QString dir = qEnvironmentVariable("KV_SCREENSHOT_DIR");
    if (dir.isEmpty() || !QDir().mkpath(dir)) return;
    QPixmap shot = controller.window()->grab();
    if (QMessageBox *alert = controller.systemVersionAlert(); alert && alert->isVisible()) {
        QPainter painter(&shot);
        const QPixmap sheet = alert->grab();
        const QRect frame((shot.width() - sheet.width()) / 2, 0, sheet.width(), sheet.height());
        painter.fillRect(shot.rect(), QColor(0, 0, 0, 40));
        painter.drawPixmap(frame.topLeft(), sheet);
        painter.setPen(QColor(0, 0, 0, 90));
        painter.drawRect(frame.adjusted(0, -1, -1, -1));
    }
    shot.save(dir + "/" + name + ".png");
}
