#pragma once

#include <QList>
#include <functional>
#include <QObject>
#include <QString>
#include <QStringList>

// Whether the guard does its whole work, and if not, why, in plain words.
// Each reason has a key, so that one situation counts once however often it
// is seen again.
class ProtectionStatus : public QObject
{
    Q_OBJECT
public:
    enum Level { Protected, Partial, Off };

    using QObject::QObject;

    Level level() const;
    // Worst first; the order in which they came within a level.
    QStringList reasons() const;
    // "protected", "partial" or "off", as the bus and the command line give it.
    static QString levelName(Level level);
    // The status and each reason, a line each.
    QString description() const;

    // A reason the user was told of already in other words is not told again.
    void setReason(const QString &key, Level level, const QString &text, bool toldAlready = false);
    void clearReason(const QString &key);
    // Every reason whose key begins with prefix, but those in keep.
    void clearReasons(const QString &prefix, const QStringList &keep = {});
    bool hasReason(const QString &key) const;

signals:
    void changed();
    // A reason that was not there before: the user hears of it once.
    void worsened(ProtectionStatus::Level level, const QString &text);
    // The last reason went.
    void protectedAgain();

private:
    struct Reason
    {
        QString key;
        Level level;
        QString text;
    };
    void removeWhere(const std::function<bool(const Reason &)> &test);

    QList<Reason> _reasons;
};
