// User defaults: the argument domain ("-key value" pairs of the command line)
// is consulted first, then the domain of this object: the application's (its
// bundle identifier) or a named suite. Stored with QSettings in its native
// format (INI under $XDG_CONFIG_HOME on Linux).
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

class KVUserDefaults {
public:
    // The application domain, named by the main bundle's identifier (the
    // executable's name when the bundle has none).
    static KVUserDefaults &standardUserDefaults();
    explicit KVUserDefaults(const QString &suiteName);

    // Replaces the argument domain with the pairs found in argv. Done once at
    // start-up from the process's own arguments; tests may set their own.
    static void setArgumentDomain(const QStringList &argv);
    static QVariantMap argumentDomain();

    QString domain() const { return m_domain; }
    QVariant objectForKey(const QString &key) const;
    QString stringForKey(const QString &key) const;
    bool boolForKey(const QString &key) const;
    qint64 integerForKey(const QString &key) const;
    double doubleForKey(const QString &key) const;
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    void synchronize();

    // The conversions Cocoa applies to stored texts: "YES", "true", "1" read
    // as true (the platform's boolValue), leading digits as integers.
    static bool boolValue(const QString &text);
    static qint64 integerValue(const QString &text);
    static double doubleValue(const QString &text);

private:
    QString m_domain;
};
