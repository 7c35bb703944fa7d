// A command-line program run to its end, for the tests of tools: its exit
// status and what it wrote to standard error.
#pragma once

#include <QProcess>
#include <QStringList>

struct ToolRun {
    int status = -1;  // -1: it did not end normally within a minute
    QString errors;
};

inline ToolRun runTool(const QString &program, const QStringList &arguments,
                       const QString &workingDirectory = {}) {
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    ToolRun run;
    if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
        run.status = process.exitCode();
    run.errors = QString::fromUtf8(process.readAllStandardError());
    return run;
}
