// The desktop's light/dark switches on Linux: the XDG desktop portal's
// Settings interface announces a new "color-scheme" on the session bus.
#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>

#include "ViewExtensions_p.h"

namespace {

const QString kPortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kSettingsInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString kAppearanceNamespace = QStringLiteral("org.freedesktop.appearance");
const QString kColorSchemeKey = QStringLiteral("color-scheme");

class AppearanceWatcher : public QObject {
    Q_OBJECT

public slots:
    void settingChanged(const QString &settingNamespace, const QString &key, const QDBusVariant &) {
        if (settingNamespace == kAppearanceNamespace && key == kColorSchemeKey)
            ViewExtensionsPrivate::postDarkModeChange();
    }
};

}  // namespace

bool ViewExtensionsPrivate::watchDesktopAppearance() {
    // Made on the main thread by the first registration and kept for the
    // program's life, so the signal arrives on the main thread.
    static AppearanceWatcher *watcher = new AppearanceWatcher;
    static bool listening = false;
    // Matching the portal's name, not any sender: Qt follows the name to its
    // current owner, so only the portal itself is believed.
    if (listening) return true;
    // Qt checks the slot's argument types by name, and QDBusVariant's is
    // registered lazily: unregistered, the first connect would fail.
    qRegisterMetaType<QDBusVariant>();
    listening = QDBusConnection::sessionBus().connect(
        kPortalService, kPortalPath, kSettingsInterface, QStringLiteral("SettingChanged"), watcher,
        SLOT(settingChanged(QString, QString, QDBusVariant)));
    return listening;
}

#include "ViewExtensions_linux.moc"
