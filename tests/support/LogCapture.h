// Captures what the process writes to standard error (where log lines go)
// while the object lives.
#pragma once

#include <unistd.h>

#include <QRegularExpression>
#include <QTemporaryFile>

#include "TestEnvironment.h"

class LogCapture {
public:
    LogCapture() {
        m_file.open();
        fflush(stderr);
        dup2(m_file.handle(), STDERR_FILENO);
    }
    ~LogCapture() {
        fflush(stderr);
        dup2(m_savedFd, STDERR_FILENO);
        close(m_savedFd);
    }
    QString text() const { return QString::fromUtf8(TestEnvironment::readFile(m_file.fileName())); }
    // The messages of the log lines so far, without their date/process prefix;
    // lines without that prefix continue the message before them.
    QStringList messages() const {
        static const QRegularExpression prefix(
            R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^\[\n]+\[\d+:\d+\] )",
            QRegularExpression::MultilineOption);
        const QString all = text();
        const qsizetype first = all.indexOf(prefix);
        QStringList result =
            first < 0 ? QStringList() : all.mid(first).split(prefix, Qt::SkipEmptyParts);
        for (QString &message : result)
            if (message.endsWith('\n')) message.chop(1);
        return result;
    }

private:
    QTemporaryFile m_file;
    const int m_savedFd = dup(STDERR_FILENO);
};
