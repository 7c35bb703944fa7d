// The installer's one window. A dialog, so that Return presses the default
// button. Escape is handed to the controller as Cancel; the close box closes
// the window, which ends the program.
#pragma once

#include <QDialog>

class InstallerWindow : public QDialog {
    Q_OBJECT

public:
    explicit InstallerWindow(QWidget *parent = nullptr);

    // Sent once the window has been painted for the first time.
    bool hasBeenPainted() const { return m_painted; }

signals:
    void cancelRequested();
    void firstPaint();

protected:
    void reject() override;
    void closeEvent(QCloseEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    bool m_painted = false;
};
