#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A real engine for tests: an engine prefix in a temporary folder (bin/clamscan,
// bin/clamdscan, sbin/clamd, etc/clamd.conf, share/clamav, run/) with the
// project's own signatures, and its scan daemon listening on run/clamd.sock.
// The daemon runs until the fixture is destroyed.
class EngineFixture
{
public:
    enum class Layout {
        Preferred,     // InstallScript when scripts/install-engine exists, else HandMade
        InstallScript, // laid out by scripts/install-engine
        HandMade,      // wrappers and an .ndb of our signatures written here
    };

    explicit EngineFixture(Layout layout = Layout::Preferred);
    ~EngineFixture();
    EngineFixture(const EngineFixture &) = delete;
    EngineFixture &operator=(const EngineFixture &) = delete;

    // One per test binary, made on first use and stopped at exit: loading the
    // definitions is the slow part, so tests share it.
    static EngineFixture &shared();

    // False when the prefix could not be laid out or the daemon did not start;
    // errorString() then says why.
    bool isReady() const { return _ready; }
    QString errorString() const { return _error; }
    Layout layout() const { return _layout; }

    QString enginePath() const;
    QString socketPath() const;
    QString pidFilePath() const;
    qint64 daemonPid() const { return _daemonPid; }

    static QString installScriptPath();

    // Has bin/RunFreshclam install our signature set plus extraSignatures
    // (".ndb" lines) as definitions of that version, built as
    // scripts/install-engine builds the first set, and have the daemon
    // reload them. False when the set cannot be built.
    bool offerUpdate(const QByteArray &extraSignatures, int version);

    // Contents the engine detects, and the names it reports for them (before
    // the engine appends ".UNOFFICIAL").
    static QByteArray eicarContents();
    static QString eicarSignatureName();
    static QByteArray markerContents();
    static QString markerSignatureName();

private:
    bool runInstallScript();
    bool writeHandMadePrefix();
    bool startDaemon();
    void stopDaemon();

    QTemporaryDir _dir;
    QTemporaryDir _updateDir;
    Layout _layout;
    bool _ready = false;
    QString _error;
    qint64 _daemonPid = 0;
};
