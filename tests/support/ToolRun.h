// A command-line program run to its end: its exit status (-1 when it did not
// end normally within a minute) and what it wrote to standard error.
#pragma once

#include <QProcess>

struct ToolRun {
    int status = -1;
    QString errors;
};

inline ToolRun runTool(const QString &program, const QStringList &arguments,
                       const QString &workingDirectory = {}) {
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    const bool ended =
        process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    return {ended ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardError())};
}
