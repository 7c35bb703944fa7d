// A bundle in the macOS layout, on every platform:
// Name.app/Contents/Info.plist, Contents/MacOS/<CFBundleExecutable>,
// Contents/Resources/. A plain folder is a bundle without an information
// dictionary whose resources lie in the folder itself.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>
#include <optional>

class KVBundle {
public:
    // The ".app" that encloses the running executable, else its folder.
    static KVBundle mainBundle();
    // No bundle when nothing, or no folder, is at the path.
    static std::optional<KVBundle> bundleWithPath(const QString &path);

    QString bundlePath() const;
    // Contents/Info.plist (XML or binary); empty when missing or malformed.
    QVariantMap infoDictionary() const;
    QVariant objectForInfoDictionaryKey(const QString &key) const;
    QString bundleIdentifier() const;
    QString resourcePath() const;
    QString executablePath() const;
    // The resource "name.type" (or "name" when type is empty) in the resource
    // folder; a null string when it does not exist.
    QString pathForResource(const QString &name, const QString &type) const;
    QStringList pathsForResourcesOfType(const QString &type) const;
    // The image file CFBundleIconFile names (with ".icns", as it is, or with
    // ".png" added, first that exists); a null string when there is none.
    QString iconFilePath() const;

    // The path of the running executable, as the system reports it.
    static QString executableFilePath();
    // The nearest ".app" folder enclosing the path (the path itself counts),
    // or a null string.
    static QString enclosingApplicationBundle(const QString &path);

private:
    struct Data;
    explicit KVBundle(const QString &path);
    std::shared_ptr<Data> d;
};
