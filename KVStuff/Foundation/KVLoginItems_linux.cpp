#include <QDir>
#include <QFile>
#include <QTextStream>

#include "KVBundle.h"
#include "KVLoginItems.h"
#include "KVPath.h"

namespace {

QString autostartFolder() {
    return KVPath::userFolder(KVPath::UserFolder::Configuration) + "/autostart";
}

// The Exec and Hidden values of the [Desktop Entry] group.
struct DesktopEntry {
    QString exec;
    bool hidden = false;
};

DesktopEntry readEntry(const QString &path) {
    DesktopEntry entry;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return entry;
    QTextStream in(&file);
    bool inMainGroup = false;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.startsWith('[')) {
            inMainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inMainGroup) continue;
        const qsizetype equals = line.indexOf('=');
        if (equals < 0) continue;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (key == QLatin1String("Exec")) entry.exec = value;
        if (key == QLatin1String("Hidden")) entry.hidden = value == QLatin1String("true");
    }
    return entry;
}

}  // namespace

QStringList KVLoginItems::resolvedPaths() {
    const QDir folder(autostartFolder());
    QStringList paths;
    for (const QString &name :
         folder.entryList({QStringLiteral("*.desktop")}, QDir::Files | QDir::Hidden, QDir::Name)) {
        const DesktopEntry entry = readEntry(folder.filePath(name));
        if (entry.hidden) continue;
        const QString program = programOfExecLine(entry.exec);
        if (program.isEmpty()) continue;
        const QString app = KVBundle::enclosingApplicationBundle(program);
        paths << (app.isNull() ? program : app);
    }
    return paths;
}
