#pragma once

#include "ClamdConfiguration.h"
#include "QXWorkerThread.h"

#include <QMutex>
#include <QString>
#include <chrono>

class QXEngineCheckerDelegate;

// Finds out whether the engine at the delegate's enginePath is installed,
// which version it is, whether its definitions are present and whether the
// bundled installer carries a newer engine; derives the exit-1 and file-list
// settings from the version; and controls the scan daemon.
class QXEngineChecker : public QXWorkerThread
{
public:
    // How long the daemon may take to accept a command and to answer it.
    static constexpr std::chrono::milliseconds defaultClamdReplyTimeLimit{5000};

    explicit QXEngineChecker(QXEngineCheckerDelegate *delegate);
    ~QXEngineChecker() override;

    // The engine installer shipped beside the agent's resources.
    static QString defaultInstallerPackagePath();

    // On the checker's thread (through perform()).
    void runCheck();
    void startClamd();

    // On the caller's thread.
    bool clamdRunning() const;
    bool clamdResponding();
    void quitClamd();
    // Sends command and its terminating NUL; true when the daemon took it
    // and answered within the time limit (the answer is not examined).
    bool talkToClamdWithCommand(const char *command);
    void discernClamdSocketLocation();
    // The engine's etc/clamd.conf, read anew at each call.
    ClamdConfiguration clamdConfiguration() const;
    // Whether the daemon is a scanning service elsewhere, reached over TCP:
    // the agent asks it but never starts it.
    bool clamdIsRemote() const { return clamdConfiguration().daemonIsRemote(); }

    QXEngineCheckerDelegate *delegate() const { return _delegate; }
    void setDelegate(QXEngineCheckerDelegate *delegate) { _delegate = delegate; }
    bool dbNeedsUpdated() const { return _dbNeedsUpdated; }
    bool engineNeedsUpdated() const { return _engineNeedsUpdated; }
    QString versionString() const { return _versionString; }
    void setVersionString(const QString &version) { _versionString = version; }
    // A null string until the daemon's configuration named one.
    QString clamdSocket() const;
    void setClamdSocket(const QString &path);
    QString installerPackagePath() const { return _installerPackagePath; }
    void setInstallerPackagePath(const QString &path) { _installerPackagePath = path; }
    std::chrono::milliseconds clamdReplyTimeLimit() const { return _clamdReplyTimeLimit; }
    void setClamdReplyTimeLimit(std::chrono::milliseconds limit) { _clamdReplyTimeLimit = limit; }

protected:
    void notifiedForStdOutput(const QByteArray &chunk) override;
    void notifiedForStdError(const QByteArray &chunk) override;

private:
    void handleVersionLine(const QString &line);
    void endHungClamd();
    bool talkToRemoteClamd(const ClamdConfiguration &configuration, const char *command);

    QXEngineCheckerDelegate *_delegate;
    QString _versionString;
    mutable QMutex _clamdSocketLock;
    QString _clamdSocket;
    bool _engineFound = false;
    bool _dbNeedsUpdated = false;
    bool _engineNeedsUpdated = false;
    // Once a run has recognised the engine, later chunks of it are not read.
    bool _readingOutput = false;
    bool _readingError = false;
    QString _installerPackagePath;
    std::chrono::milliseconds _clamdReplyTimeLimit = defaultClamdReplyTimeLimit;
};
