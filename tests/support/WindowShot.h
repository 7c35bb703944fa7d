// The installer's window as a PNG in KV_SCREENSHOT_DIR (scripts/screenshots),
// a visible sheet hanging from its title.
#pragma once

#include <QDir>
#include <QMessageBox>
#include <QPainter>

#include "InstallerWinController.h"

inline void windowShot(const InstallerWinController &controller, const QString &name) {
    const QString dir = qEnvironmentVariable("KV_SCREENSHOT_DIR");
    if (dir.isEmpty() || !QDir().mkpath(dir)) return;
    QPixmap shot = controller.window()->grab();
    if (QMessageBox *alert = controller.systemVersionAlert(); alert && alert->isVisible()) {
        QPainter painter(&shot);
        const QPixmap sheet = alert->grab();
        painter.drawPixmap((shot.width() - sheet.width()) / 2, 0, sheet);
    }
    shot.save(dir + "/" + name + ".png");
}
