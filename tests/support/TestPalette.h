#pragma once

#include <QColor>
#include <QPalette>

// A plain light or dark palette, for tests that set the appearance by hand.
inline QPalette testPalette(bool dark) {
    QPalette palette;
    palette.setColor(QPalette::Window, dark ? QColor(30, 30, 30) : QColor(240, 240, 240));
    palette.setColor(QPalette::WindowText, dark ? QColor(230, 230, 230) : QColor(10, 10, 10));
    return palette;
}
