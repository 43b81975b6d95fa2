#include "UserDefaults.h"

#include "BundleInfo.h"
#include "PropertyList.h"
#include "SharedInstance.h"
#include "SystemLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

#include <sys/stat.h>

namespace {

// Identifies one version of a file. An atomic replace changes the inode; an
// in-place edit changes size or times.
struct FileStamp
{
    bool exists = false;
    quint64 device = 0;
    quint64 inode = 0;
    qint64 size = 0;
    qint64 modifiedNs = 0;
    qint64 changedNs = 0;

    bool operator==(const FileStamp &) const = default;
};

FileStamp stampOf(const QString &path)
{
    struct stat info
    {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    return {true,
            quint64(info.st_dev),
            quint64(info.st_ino),
            qint64(info.st_size),
            qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec,
            qint64(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec};
}

QString configHome()
{
    const QString configured = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!configured.isEmpty() && QDir::isAbsolutePath(configured))
        return configured;
    return QDir::homePath() + QStringLiteral("/.config");
}

SharedInstance<UserDefaults> shared([]() -> UserDefaults * {
    return new UserDefaults(BundleInfo::bundleIdentifier());
});

} // namespace

struct UserDefaults::Domain
{
    QString path;
    FileStamp stamp;
    bool loaded = false;
    bool unreadable = false;
    bool keptFileLogged = false;
    QVariantMap onDisk;
    // onDisk with the pending changes on top.
    QVariantMap values;
    // Own domain only: keys changed since the last write; invalid = removed.
    QVariantMap pending;
};

UserDefaults::UserDefaults(const QString &domain)
    : _domain(domain)
{}

UserDefaults::~UserDefaults() = default;

UserDefaults *UserDefaults::standardUserDefaults()
{
    return shared.get();
}

void UserDefaults::setStandardUserDefaults(UserDefaults *defaults)
{
    shared.set(defaults);
}

QString UserDefaults::pathForDomain(const QString &domain)
{
    return configHome() + QLatin1Char('/') + domain + QStringLiteral(".plist");
}

void UserDefaults::registerDefaults(const QVariantMap &defaults)
{
    QMutexLocker locker(&_lock);
    _registration.insert(defaults);
}

QVariantMap UserDefaults::registrationDomain() const
{
    QMutexLocker locker(&_lock);
    return _registration;
}

void UserDefaults::addSuiteNamed(const QString &suite)
{
    QMutexLocker locker(&_lock);
    if (suite.isEmpty() || suite == _domain || _suites.contains(suite))
        return;
    _suites.append(suite);
}

UserDefaults::Domain &UserDefaults::load(const QString &name)
{
    std::unique_ptr<Domain> &slot = _domains[name];
    if (!slot)
        slot = std::make_unique<Domain>();
    Domain &domain = *slot;

    const QString path = pathForDomain(name);
    const FileStamp stamp = stampOf(path);
    if (domain.loaded && domain.path == path && domain.stamp == stamp)
        return domain;

    domain.loaded = true;
    domain.path = path;
    domain.stamp = stamp;
    domain.unreadable = false;
    domain.keptFileLogged = false;
    domain.onDisk.clear();
    if (stamp.exists) {
        PropertyList::Status status = PropertyList::Status::Ok;
        QString error;
        const QVariant contents = PropertyList::readFile(path, &status, &error);
        if (status == PropertyList::Status::Ok && contents.typeId() != QMetaType::QVariantMap) {
            status = PropertyList::Status::Malformed;
            error = path + QStringLiteral(": not a dictionary");
        }
        if (status == PropertyList::Status::Ok) {
            domain.onDisk = contents.toMap();
        } else if (status != PropertyList::Status::Missing) {
            // Logged here only, so once per version of the file.
            domain.unreadable = true;
            SystemLog::log(QStringLiteral("could not read preferences %1").arg(error));
        }
    }
    domain.values = domain.onDisk;
    for (auto it = domain.pending.cbegin(); it != domain.pending.cend(); ++it) {
        if (it.value().isValid())
            domain.values.insert(it.key(), it.value());
        else
            domain.values.remove(it.key());
    }
    return domain;
}

QVariant UserDefaults::objectForKey(const QString &key)
{
    QMutexLocker locker(&_lock);
    const Domain &own = load(_domain);
    if (auto it = own.values.constFind(key); it != own.values.cend())
        return it.value();
    for (const QString &suite : std::as_const(_suites)) {
        const Domain &domain = load(suite);
        if (auto it = domain.values.constFind(key); it != domain.values.cend())
            return it.value();
    }
    return _registration.value(key);
}

void UserDefaults::setObjectForKey(const QVariant &value, const QString &key)
{
    if (value.isValid()) {
        QString error;
        if (PropertyList::toXml(value, &error).isEmpty()) {
            SystemLog::log(QStringLiteral("ignored preference %1: %2").arg(key, error));
            return;
        }
    }
    QMutexLocker locker(&_lock);
    Domain &own = load(_domain);
    own.pending.insert(key, value);
    if (value.isValid())
        own.values.insert(key, value);
    else
        own.values.remove(key);
}

void UserDefaults::removeObjectForKey(const QString &key)
{
    setObjectForKey(QVariant(), key);
}

QVariantMap UserDefaults::persistentDomainForName(const QString &domain)
{
    QMutexLocker locker(&_lock);
    return load(domain).values;
}

bool UserDefaults::synchronize()
{
    QMutexLocker locker(&_lock);
    // Re-reading first merges our pending keys over another program's edits.
    Domain &own = load(_domain);
    if (own.pending.isEmpty())
        return true;
    if (own.unreadable) {
        if (!own.keptFileLogged) {
            SystemLog::log(QStringLiteral("kept preferences %1 as they are: the file could not be read, "
                                          "so changes stay in memory")
                               .arg(own.path));
            own.keptFileLogged = true;
        }
        return false;
    }
    if (own.values == own.onDisk) {
        own.pending.clear();
        return true;
    }
    QDir().mkpath(QFileInfo(own.path).absolutePath());
    QString error;
    if (!PropertyList::writeXmlFile(own.path, own.values, &error)) {
        SystemLog::log(QStringLiteral("could not write preferences %1").arg(error));
        return false;
    }
    own.pending.clear();
    own.onDisk = own.values;
    own.stamp = stampOf(own.path);
    return true;
}
