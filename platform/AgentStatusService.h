#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// The guard's status on the session bus, for Korvane, scripts and a fleet's
// monitoring: method Status on interface org.korvane.KorvaneVarden at object
// path /org/korvane/KorvaneVarden/Status of the agent's bus name, answering the
// level ("protected", "partial" or "off") and the reasons in plain words.
class AgentStatusService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.korvane.KorvaneVarden")
public:
    struct Answer
    {
        QString level;
        QStringList reasons;
    };
    using Provider = std::function<Answer()>;

    static const QString serviceName;
    static const QString objectPath;
    static const QString interfaceName;

    explicit AgentStatusService(Provider provider, QObject *parent = nullptr);
    // Puts the object on the session bus; false without one.
    bool publish();

    // What the agent of this session answers; nothing when none answers
    // within the time limit. Tests name the agent by its unique bus name.
    static std::optional<Answer> ask(int timeoutMs = 5000, const QString &service = serviceName);

    // The same without waiting: done runs later on context's thread.
    static void askLater(QObject *context, std::function<void(std::optional<Answer>)> done, int timeoutMs = 5000);

public slots:
    Q_SCRIPTABLE QString Status(QStringList &reasons);

private:
    Provider _provider;
};
