#include "KVLaunchServices.h"

#include <QStringList>

#include "KVBundle.h"
#include "KVFileManager.h"

namespace {

// A desktop-entry string value: backslash escapes for the characters the
// format reserves.
QString escapedValue(const QString &value) {
    QString out;
    for (QChar c : value) {
        if (c == '\\')
            out += QStringLiteral("\\\\");
        else if (c == '\n')
            out += QStringLiteral("\\n");
        else if (c == '\r')
            out += QStringLiteral("\\r");
        else if (c == '\t')
            out += QStringLiteral("\\t");
        else
            out += c;
    }
    return out;
}

// One word of an Exec line: quoted, with the characters that stay special
// inside quotes escaped, and "%" doubled so it is no field code.
QString execArgument(const QString &word) {
    QString quoted = QStringLiteral("\"");
    for (QChar c : word) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
        if (c == '%') quoted += '%';
        quoted += c;
    }
    return escapedValue(quoted + '"');
}

// The desktop checks an entry by looking for its program as written, before
// "%%" turns back into "%": a program whose path holds "%" is therefore
// started through env, which the desktop always finds.
QString execLine(const QString &executable) {
    const QString program = execArgument(executable);
    return executable.contains(QLatin1Char('%')) ? QStringLiteral("/usr/bin/env ") + program
                                                 : program;
}

}  // namespace

QString KVLaunchServices::desktopEntryFor(const QString &bundlePath, const QString &iconPath) {
    const auto bundle = KVBundle::bundleWithPath(bundlePath);
    if (!bundle) return QString();
    const QVariantMap info = bundle->infoDictionary();
    QString name = info.value(QStringLiteral("CFBundleDisplayName")).toString();
    if (name.isEmpty()) name = info.value(QStringLiteral("CFBundleName")).toString();
    if (name.isEmpty()) name = KVFileManager::displayNameAtPath(bundlePath);
    QStringList lines{QStringLiteral("[Desktop Entry]"),
                      QStringLiteral("Type=Application"),
                      QStringLiteral("Version=1.4"),
                      "Name=" + escapedValue(name),
                      "Exec=" + execLine(bundle->executablePath()),
                      QStringLiteral("Terminal=false")};
    if (!iconPath.isEmpty()) lines << "Icon=" + escapedValue(iconPath);
    // Where the bundle is, for whoever wants to find it again.
    lines << "X-Velmora-Bundle=" + escapedValue(bundlePath);
    return lines.join('\n') + '\n';
}
