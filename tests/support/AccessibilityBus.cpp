#include "AccessibilityBus.h"

#include <QTest>

#include "TestEnvironment.h"
#include "XSession.h"

namespace {
std::unique_ptr<QProcess> s_sessionBus, s_launcher;
QByteArray s_sessionBusAddress;

bool addressPublished() {
    QProcess xprop;
    xprop.start("xprop", {"-root", "AT_SPI_BUS"});
    xprop.waitForFinished();
    return xprop.readAllStandardOutput().contains("unix:");
}
}  // namespace

QString AccessibilityBus::start() {
    const QString folder = TestEnvironment::makeTempDir("a11y");
    s_sessionBus = std::make_unique<QProcess>();
    s_sessionBus->setStandardErrorFile(folder + "/session-bus.txt");
    s_sessionBus->start("dbus-daemon", {"--session", "--nofork", "--print-address=1"});
    s_sessionBusAddress = XSession::outputUntil(*s_sessionBus, "\n").trimmed();
    if (s_sessionBusAddress.isEmpty()) return "dbus-daemon did not start";
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS", QString::fromLocal8Bit(s_sessionBusAddress));
    environment.insert("XDG_RUNTIME_DIR", folder);
    s_launcher = std::make_unique<QProcess>();
    s_launcher->setProcessEnvironment(environment);
    s_launcher->setStandardOutputFile(folder + "/launcher.txt");
    s_launcher->setStandardErrorFile(folder + "/launcher.txt", QIODevice::Append);
    s_launcher->start("/usr/libexec/at-spi-bus-launcher", {"--launch-immediately"});
    if (!QTest::qWaitFor(addressPublished, 20000))
        return "at-spi-bus-launcher (at-spi2-core) published no bus, see " + folder;
    return {};
}

void AccessibilityBus::stop() {
    XSession::stop(s_launcher);
    XSession::stop(s_sessionBus);
    s_sessionBusAddress.clear();
}

QByteArray AccessibilityBus::sessionBusAddress() { return s_sessionBusAddress; }
