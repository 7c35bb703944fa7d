// The description Cocoa prints for an object through "%@": strings as they
// are, lists as "( ... )" and dictionaries as "{ key = value; }" with the
// platform's indentation and quoting.
#pragma once

#include <QString>
#include <QVariant>

namespace KVDescription {
QString describe(const QVariant &object);
}
