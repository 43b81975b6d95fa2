#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>

class CompanionSettings;
class PreferencesWindow;
#include <QMessageBox>

// The running companion: owns its name on the session bus, shows its
// preferences when the agent asks, starts the agent when it is not running
// and answers "korvane:" URLs.
class CompanionApplication : public QObject
{
    Q_OBJECT
public:
    explicit CompanionApplication(QObject *parent = nullptr);
    ~CompanionApplication() override;

    // The agent, installed or built beside the companion.
    static QString agentProgram();
    static bool isAgentRunning();
    static bool startAgent(const QString &program = agentProgram());

    // Answers false when another companion owns the name already.
    bool claimBusName();
    void observeAgent();

    PreferencesWindow *preferencesWindow();
    void showPreferences();
    // The Scan page in front, scanning paths.
    void showScan(const QStringList &paths);
    // Asks the companion that owns the name to scan paths.
    static void askRunningCompanionToScan(const QStringList &paths);
    // The Scan page in front, with the rows kept in path.
    void showResults(const QString &path);
    static void askRunningCompanionToShowResults(const QString &path);
    // The local files among the arguments given to open, as paths or file: URLs.
    static QStringList localPaths(const QStringList &arguments);
    // Answers false for a URL that is not ours.
    bool openUrl(const QUrl &url);
    QMessageBox *updateNotice() const { return _updateNotice; }

    // The package's version that the package manager would install, or
    // an empty string when it offers none.
    static QString offeredVersion();
    static QString updateInstructions(const QString &installed, const QString &offered);

    // Writes the defaults of a first run when there are no settings yet:
    // the Downloads folder and the agent's login entry. Answers a line that
    // says what it did; ok is false when something could not be written.
    static QString firstRun(bool *ok);

private:
    std::unique_ptr<CompanionSettings> _settings;
    PreferencesWindow *_window = nullptr;
    QPointer<QMessageBox> _updateNotice;
};
