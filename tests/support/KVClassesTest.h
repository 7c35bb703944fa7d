// What the tests of the process records, utilities and colours share: real
// child processes, windows on the test's X server and captured log lines.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QProcess>
#include <QTest>
#include <thread>

#include "FrontWindow.h"
#include "KVProcess.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVUtilities_p.h"
#include "LogCapture.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"
#include "XSession.h"
