// The desktop's accessibility bus (at-spi-bus-launcher) for tests on the X
// server of XSession. The launcher runs on a session bus and runtime folder
// of its own, so that programs tested side by side never meet its name; its
// clients find the bus through the root window property it sets on the
// test's display. Everything started here is stopped by process id.
#pragma once

#include <QString>

namespace AccessibilityBus {
// Starts the bus once XSession runs; why it could not, empty when it runs.
QString start();
void stop();
// The launcher's session bus. A Qt program joins the accessibility bus only
// when it finds the launcher on its session bus.
QByteArray sessionBusAddress();
}  // namespace AccessibilityBus
