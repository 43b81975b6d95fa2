#include "CompanionApplication.h"

#include "CompanionSettings.h"
#include "LoginItem.h"
#include "PreferencesWindow.h"
#include "ScanPage.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/SystemLog.h"
#include "platform/Workspace.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMessageBox>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

namespace {

const QString agentName = QStringLiteral("KorvaneVarden");
const QString packageName = QStringLiteral("korvane");
const QString scanNotification = QStringLiteral("KorvaneShouldScan");
const QString resultsNotification = QStringLiteral("KorvaneShouldShowResults");

} // namespace

CompanionApplication::CompanionApplication(QObject *parent)
    : QObject(parent)
    , _settings(std::make_unique<CompanionSettings>())
{}

CompanionApplication::~CompanionApplication()
{
    DistributedNotificationCenter::defaultCenter()->removeObserver(this);
    delete _window;
}

QString CompanionApplication::agentProgram()
{
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') + agentName;
}

bool CompanionApplication::isAgentRunning()
{
    // The agent owns its name on the session bus while it runs.
    return Workspace::sharedWorkspace()->isApplicationActive(QStringLiteral(KORVANE_AGENT_ID));
}

bool CompanionApplication::startAgent(const QString &program)
{
    if (!QProcess::startDetached(program, {})) {
        SystemLog::log(QStringLiteral("could not start %1").arg(program));
        return false;
    }
    return true;
}

bool CompanionApplication::claimBusName()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        SystemLog::log(QStringLiteral("no session bus: the agent cannot find Korvane"));
        return true;
    }
    return bus.registerService(BundleInfo::companionIdentifier());
}

void CompanionApplication::observeAgent()
{
    DistributedNotificationCenter::defaultCenter()->addObserver(this, QStringLiteral("KorvaneShouldOpenPrefs"),
                                                                [this](const QString &) { showPreferences(); });
    // The paths travel as a JSON array: a file name may hold any character but NUL.
    DistributedNotificationCenter::defaultCenter()->addObserver(this, scanNotification, [this](const QString &object) {
        QStringList paths;
        for (const QJsonValue &path : QJsonDocument::fromJson(object.toUtf8()).array())
            paths << path.toString();
        showScan(paths);
    });
    DistributedNotificationCenter::defaultCenter()->addObserver(
        this, resultsNotification, [this](const QString &object) { showResults(object); });
}

PreferencesWindow *CompanionApplication::preferencesWindow()
{
    if (!_window)
        _window = new PreferencesWindow(_settings.get(), agentProgram());
    return _window;
}

void CompanionApplication::showPreferences()
{
    preferencesWindow()->present();
}

void CompanionApplication::showScan(const QStringList &paths)
{
    preferencesWindow()->showScan(paths);
}

void CompanionApplication::askRunningCompanionToScan(const QStringList &paths)
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        scanNotification,
        QString::fromUtf8(QJsonDocument(QJsonArray::fromStringList(paths)).toJson(QJsonDocument::Compact)));
}

void CompanionApplication::showResults(const QString &path)
{
    preferencesWindow()->showScan({});
    preferencesWindow()->scanPage()->showResults(path);
}

void CompanionApplication::askRunningCompanionToShowResults(const QString &path)
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(resultsNotification, path);
}

QStringList CompanionApplication::localPaths(const QStringList &arguments)
{
    QStringList paths;
    for (const QString &argument : arguments) {
        const QUrl url(argument);
        if (url.isLocalFile())
            paths << url.toLocalFile();
        else if (QFileInfo(argument).isAbsolute() || QFileInfo::exists(argument))
            paths << QFileInfo(argument).absoluteFilePath();
    }
    return paths;
}

bool CompanionApplication::openUrl(const QUrl &url)
{
    if (url.scheme().compare(QLatin1String("korvane"), Qt::CaseInsensitive) != 0)
        return false;
    if (url.host().compare(QLatin1String("update"), Qt::CaseInsensitive) != 0) {
        SystemLog::log(QStringLiteral("Korvane does not know what to do with %1").arg(url.toString()));
        return false;
    }
    if (!_updateNotice) {
        _updateNotice = new QMessageBox(QMessageBox::Information, tr("Korvane Update"), QString(), QMessageBox::Ok);
        _updateNotice->setAttribute(Qt::WA_DeleteOnClose);
        _updateNotice->setObjectName(QStringLiteral("updateNotice"));
    }
    _updateNotice->setText(updateInstructions(BundleInfo::shortVersionString(), offeredVersion()));
    _updateNotice->show();
    _updateNotice->raise();
    return true;
}

QString CompanionApplication::offeredVersion()
{
    const QString aptCache = QStandardPaths::findExecutable(QStringLiteral("apt-cache"));
    if (aptCache.isEmpty())
        return {};
    QProcess policy;
    policy.start(aptCache, {QStringLiteral("policy"), packageName});
    if (!policy.waitForFinished(5000)) {
        policy.kill();
        policy.waitForFinished(1000);
        return {};
    }
    static const QRegularExpression candidate(QStringLiteral("^\\s*Candidate:\\s*(\\S+)"),
                                              QRegularExpression::MultilineOption);
    const QString version = candidate.match(QString::fromLocal8Bit(policy.readAllStandardOutput())).captured(1);
    return version == QLatin1String("(none)") ? QString() : version;
}

QString CompanionApplication::updateInstructions(const QString &installed, const QString &offered)
{
    QString text = tr("Korvane %1 is installed.").arg(installed);
    if (offered.isEmpty())
        text += QLatin1Char(' ')
                + tr("The package manager offers no other version of “%1” at the moment.").arg(packageName);
    else
        text += QLatin1Char(' ') + tr("The package manager offers version %1.").arg(offered);
    text += QStringLiteral("\n\n")
            + tr("Korvane is updated with the rest of the system: use your software updater, or run\n\n"
                 "    sudo apt update && sudo apt install --only-upgrade %1")
                  .arg(packageName);
    return text;
}

QString CompanionApplication::firstRun(bool *ok)
{
    *ok = true;
    const QString settingsPath = CompanionSettings::domainPath();
    if (CompanionSettings::domainExists())
        return tr("The settings are in %1 already; they are left as they are.").arg(settingsPath);
    CompanionSettings settings;
    QString error;
    if (!settings.writeFirstRunDefaults(&error)) {
        *ok = false;
        return tr("Could not write the first settings: %1").arg(error);
    }
    QString line = tr("Korvane watches %1 now; the settings are in %2.")
                       .arg(settings.watchedFolders().join(QStringLiteral(", ")), settingsPath);
    if (!LoginItem::isEnabled() && !LoginItem::setEnabled(true, agentProgram(), &error)) {
        *ok = false;
        line += QLatin1Char(' ') + error;
    }
    return line;
}
