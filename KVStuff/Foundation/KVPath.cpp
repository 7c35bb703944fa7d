#include "KVPath.h"

namespace {
const QChar kSlash = QLatin1Char('/');

// The component after the last slash of a path without redundant slashes.
qsizetype lastComponentStart(const QString &s) { return s == "/" ? 0 : s.lastIndexOf(kSlash) + 1; }
}  // namespace

QString KVPath::stringByRemovingRedundantSlashes(const QString &path) {
    QString out;
    out.reserve(path.size());
    for (QChar c : path) {
        if (c == kSlash && out.endsWith(kSlash)) continue;
        out += c;
    }
    if (out.size() > 1 && out.endsWith(kSlash)) out.chop(1);
    return out;
}

QString KVPath::lastPathComponent(const QString &path) {
    const QString s = stringByRemovingRedundantSlashes(path);
    return s.mid(lastComponentStart(s));
}

QString KVPath::stringByDeletingLastPathComponent(const QString &path) {
    const QString s = stringByRemovingRedundantSlashes(path);
    if (s == "/") return s;
    const qsizetype slash = s.lastIndexOf(kSlash);
    if (slash < 0) return QStringLiteral("");
    return slash == 0 ? QStringLiteral("/") : s.left(slash);
}

QString KVPath::pathExtension(const QString &path) {
    const QString component = lastPathComponent(path);
    const qsizetype dot = component.lastIndexOf(QLatin1Char('.'));
    // A leading dot names a hidden file, not an extension.
    if (dot <= 0) return QStringLiteral("");
    return component.mid(dot + 1);
}

QString KVPath::stringByDeletingPathExtension(const QString &path) {
    const QString s = stringByRemovingRedundantSlashes(path);
    const qsizetype start = lastComponentStart(s);
    const qsizetype dot = s.lastIndexOf(QLatin1Char('.'));
    if (dot <= start) return s;
    return s.left(dot);
}

QString KVPath::stringByAppendingPathComponent(const QString &path, const QString &component) {
    if (path.isEmpty()) return stringByRemovingRedundantSlashes(component);
    if (component.isEmpty()) return stringByRemovingRedundantSlashes(path);
    return stringByRemovingRedundantSlashes(path + kSlash + component);
}

QString KVPath::stringByAppendingPathExtension(const QString &path, const QString &extension) {
    return stringByRemovingRedundantSlashes(path) + QLatin1Char('.') + extension;
}

QString KVPath::stringByExpandingTildeInPath(const QString &path) {
    if (!path.startsWith(QLatin1Char('~'))) return path;
    const qsizetype slash = path.indexOf(kSlash);
    const QString user = path.mid(1, slash < 0 ? -1 : slash - 1);
    const QString home = user.isEmpty() ? homeDirectory() : homeDirectoryForUser(user);
    if (home.isEmpty()) return path;
    return stringByRemovingRedundantSlashes(home + (slash < 0 ? QString() : path.mid(slash)));
}

QString KVPath::stringByAbbreviatingWithTildeInPath(const QString &path) {
    const QString home = stringByRemovingRedundantSlashes(homeDirectory());
    // With "/" as home every absolute path would turn into "~/...".
    if (home.isEmpty() || home == "/") return path;
    const QString s = stringByRemovingRedundantSlashes(path);
    if (s == home) return QStringLiteral("~");
    if (s.startsWith(home + kSlash)) return QLatin1Char('~') + s.mid(home.size());
    return path;
}
