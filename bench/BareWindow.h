// The yardstick for the installer's start-up: a plain Qt window of about the
// same size with a label and two buttons, built in the same tree.
#pragma once

#include <QWidget>

class BareWindow : public QWidget {
    Q_OBJECT
public:
    BareWindow();
signals:
    void firstPaint();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    bool m_painted = false;
};
