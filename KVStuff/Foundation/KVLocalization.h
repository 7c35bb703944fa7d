// The strings-table lookup: the English text is the key, and a key without a
// translation shows itself.
#pragma once

#include <QLocale>
#include <QString>

class KVBundle;

namespace KVLocalization {
QString localizedString(const QString &key);
// Loads "<prefix>_<language>.qm" from the bundle's resources for the locale's
// preferred languages; false when none matched (the English keys then show).
bool installTranslations(const KVBundle &bundle, const QString &prefix,
                         const QLocale &locale = QLocale::system());
}  // namespace KVLocalization
