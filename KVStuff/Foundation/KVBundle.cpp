#include "KVBundle.h"

#include <QDir>
#include <QFileInfo>
#include <optional>

#include "KVFileManager.h"
#include "KVPath.h"
#include "KVPropertyList.h"

struct KVBundle::Data {
    QString path;
    // Read on first use and kept, as the platform's bundles keep theirs.
    std::optional<QVariantMap> info;
};

KVBundle::KVBundle(const QString &path) : d(std::make_shared<Data>()) { d->path = path; }

KVBundle KVBundle::mainBundle() {
    static const KVBundle bundle([] {
        const QString executable = executableFilePath();
        const QString app = enclosingApplicationBundle(executable);
        return app.isNull() ? KVPath::stringByDeletingLastPathComponent(executable) : app;
    }());
    return bundle;
}

std::optional<KVBundle> KVBundle::bundleWithPath(const QString &path) {
    bool isDirectory = false;
    if (path.isEmpty() || !KVFileManager::fileExistsAtPath(path, &isDirectory) || !isDirectory)
        return std::nullopt;
    return KVBundle(KVPath::stringByRemovingRedundantSlashes(path));
}

QString KVBundle::enclosingApplicationBundle(const QString &path) {
    for (QString p = KVPath::stringByRemovingRedundantSlashes(path); p.size() > 1;
         p = KVPath::stringByDeletingLastPathComponent(p)) {
        if (p.endsWith(QLatin1String(".app"))) return p;
    }
    return QString();
}

QString KVBundle::bundlePath() const { return d->path; }

QVariantMap KVBundle::infoDictionary() const {
    if (!d->info) d->info = KVPropertyList::fromFile(d->path + "/Contents/Info.plist").toMap();
    return *d->info;
}

QVariant KVBundle::objectForInfoDictionaryKey(const QString &key) const {
    return infoDictionary().value(key);
}

QString KVBundle::bundleIdentifier() const {
    return objectForInfoDictionaryKey(QStringLiteral("CFBundleIdentifier")).toString();
}

QString KVBundle::resourcePath() const {
    const QString contents = d->path + "/Contents";
    return QFileInfo(contents).isDir() ? contents + "/Resources" : d->path;
}

QString KVBundle::executablePath() const {
    const QString name =
        objectForInfoDictionaryKey(QStringLiteral("CFBundleExecutable")).toString();
    if (name.isEmpty()) return QString();
    return d->path + "/Contents/MacOS/" + name;
}

QString KVBundle::pathForResource(const QString &name, const QString &type) const {
    if (name.isEmpty()) return QString();
    const QString file = type.isEmpty() ? name : name + '.' + type;
    const QString path = resourcePath() + '/' + file;
    return KVFileManager::fileExistsAtPath(path) ? path : QString();
}

QStringList KVBundle::pathsForResourcesOfType(const QString &type) const {
    const QString folder = resourcePath();
    const QStringList filter{type.isEmpty() ? QStringLiteral("*") : "*." + type};
    QStringList paths;
    for (const QString &entry : QDir(folder).entryList(
             filter, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::CaseSensitive,
             QDir::Name))
        paths << folder + '/' + entry;
    return paths;
}

QString KVBundle::iconFilePath() const {
    const QVariant name = objectForInfoDictionaryKey(QStringLiteral("CFBundleIconFile"));
    if (name.typeId() != QMetaType::QString || name.toString().isEmpty()) return QString();
    for (const QString &type : {QStringLiteral("icns"), QString(), QStringLiteral("png")}) {
        const QString path = pathForResource(name.toString(), type);
        if (!path.isNull() && QFileInfo(path).isFile()) return path;
    }
    return QString();
}
