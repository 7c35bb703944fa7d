// Captures what the process writes to standard error (where log lines go)
// while the object lives.
#pragma once

#include <QTemporaryFile>

#include "QtPrinters.h"

class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    // Everything written so far.
    QString text() const;
    // The messages of the log lines so far, without their date/process prefix.
    QStringList messages() const;

private:
    QTemporaryFile m_file;
    int m_savedFd = -1;
};
