// Windows of kvtest_window brought to the front of the test's X session, for
// test programs that define KV_TEST_WINDOW.
#pragma once

#include <gtest/gtest.h>

#include <QTest>

#include "KVWindowServer.h"
#include "XSession.h"

inline pid_t pidOf(const std::unique_ptr<QProcess> &process) {
    return process ? pid_t(process->processId()) : 0;
}

// Waits for the window to come to the front; a busy machine may be slow.
inline std::unique_ptr<QProcess> frontWindow(const QStringList &arguments) {
    QString error;
    auto window = XSession::startWindowProgram(KV_TEST_WINDOW, arguments, &error);
    EXPECT_TRUE(window) << qPrintable(error);
    const pid_t pid = pidOf(window);
    KVWindowServer::bringProcessToFront(pid, false);
    EXPECT_TRUE(QTest::qWaitFor([pid] { return KVWindowServer::frontProcessID() == pid; }, 20000));
    return window;
}
