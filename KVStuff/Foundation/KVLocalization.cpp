#include "KVLocalization.h"

#include <QCoreApplication>
#include <QTranslator>

#include "KVBundle.h"

namespace {
// The one strings table of the application, like the platform's default table.
constexpr const char *kContext = "Localizable";
}  // namespace

QString KVLocalization::localizedString(const QString &key) {
    if (key.isNull()) return key;
    return QCoreApplication::translate(kContext, key.toUtf8().constData());
}

bool KVLocalization::installTranslations(const KVBundle &bundle, const QString &prefix,
                                         const QLocale &locale) {
    // Owned by the application object; it lives as long as the process.
    auto *translator = new QTranslator(QCoreApplication::instance());
    if (!translator->load(locale, prefix, QStringLiteral("_"), bundle.resourcePath())) {
        delete translator;
        return false;
    }
    return QCoreApplication::installTranslator(translator);
}
