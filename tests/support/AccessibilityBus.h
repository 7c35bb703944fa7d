// The desktop's accessibility bus (at-spi-bus-launcher) on XSession's X
// server. The launcher runs on a session bus and runtime folder of its own,
// so that programs tested side by side never meet its name; its clients find
// the bus through the root window property it sets.
#pragma once

#include <QString>

namespace AccessibilityBus {
// Why it could not be started, empty when it runs.
QString start();
void stop();
// The launcher's session bus: a Qt program joins the accessibility bus only
// when it finds the launcher there.
QByteArray sessionBusAddress();
}  // namespace AccessibilityBus
