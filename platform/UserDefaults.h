#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <map>
#include <memory>

// The user-defaults store: the program's own domain and any added suites are
// XML property-list files "$XDG_CONFIG_HOME/<domain>.plist"; the registration
// domain lives in memory. Reads search the own domain, then the suites in the
// order added, then the registration domain. Files are re-read when they
// change on disk, so another program's edits are seen at the next read.
// A domain file that cannot be read is logged once, read as empty and never
// overwritten. Safe to call from any thread.
class UserDefaults
{
public:
    explicit UserDefaults(const QString &domain);
    ~UserDefaults();

    // The store of the running program (its bundle identifier as domain).
    static UserDefaults *standardUserDefaults();
    // Tests give their own store; nullptr returns to the default one.
    static void setStandardUserDefaults(UserDefaults *defaults);

    static QString pathForDomain(const QString &domain);

    void registerDefaults(const QVariantMap &defaults);
    QVariantMap registrationDomain() const;
    void addSuiteNamed(const QString &suite);

    // Absent keys read as an invalid QVariant.
    QVariant objectForKey(const QString &key);

    // Writes go to the own domain and reach the disk at synchronize(). An
    // invalid value removes the key; a value a property list cannot hold is
    // logged and ignored.
    void setObjectForKey(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    QVariantMap persistentDomainForName(const QString &domain);

    // Writes the own domain atomically if it changed, on top of what another
    // program may have written meanwhile. Answers false (and writes nothing)
    // when the file on disk could not be read, so that a file we do not
    // understand is never replaced; the changes then stay in memory.
    bool synchronize();

private:
    struct Domain;
    // Caller holds _lock. Re-reads the domain's file if it changed.
    Domain &load(const QString &domain);

    const QString _domain;
    mutable QMutex _lock;
    QStringList _suites;
    QVariantMap _registration;
    std::map<QString, std::unique_ptr<Domain>> _domains;
};
