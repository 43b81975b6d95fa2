#include "QXUpdater.h"

#include "QXUpdaterDelegate.h"
#include "platform/SystemLog.h"
#include "platform/SystemVersion.h"

#include <QDir>
#include <QLocale>
#include <QRegularExpression>

namespace {

// " 45", "100", "  5": the number the bracket starts with, 0 when none.
double leadingPercentage(const QString &text)
{
    static const QRegularExpression number(QStringLiteral("^\\s*[+-]?(\\d+\\.?\\d*|\\.\\d+)"));
    const QRegularExpressionMatch match = number.match(text);
    return match.hasMatch() ? QLocale::c().toDouble(match.captured().trimmed()) : 0.0;
}

} // namespace

QXUpdater::QXUpdater(QXUpdaterDelegate *delegate)
    : _delegate(delegate)
{
    if (SystemVersion::productVersion().startsWith(QLatin1String("10.9"))) {
        _needsDNSfix = true;
        NSLog(QStringLiteral("running on 10.9 - we need the freshclam DNS fix. Booooo! If you see this and "
                             "you're NOT running 10.9, please let me know - support@korvane.org"));
    }
}

QXUpdater::~QXUpdater()
{
    // No run may go on using this object's fields.
    stopThread();
}

void QXUpdater::runUpdate()
{
    QXUpdaterDelegate *delegate = _delegate;
    reportToMainAndWait([delegate] { delegate->updateStarted(); });

    _needsExit1FreshclamFlag = delegate->updaterNeedsExit1FreshclamFlag();
    _delegateWantsUpdates = delegate->wantUpdatePercentages();

    QStringList arguments{QStringLiteral("--stdout")};
    if (delegate->logUpdates())
        arguments.append(QStringLiteral("--log=") + delegate->updateLogPath());
    if (_needsExit1FreshclamFlag)
        arguments.append(QStringLiteral("--on-update-execute=EXIT_1"));
    if (_needsDNSfix)
        arguments.append(QStringLiteral("--no-dns"));

    const QString launcher = QDir::cleanPath(delegate->enginePath() + QStringLiteral("/bin/RunFreshclam"));
    const RunResult result = runChild(launcher, arguments);
    int status = result.status;
    if (!result.started) {
        // updateStarted has gone out, so the end must follow for the agent
        // to show the failure and check the engine again.
        NSLog(QStringLiteral("error:%1").arg(result.error));
        status = launcherNotStartedStatus;
    }

    if (_delegateWantsUpdates)
        reportToMainAndWait([delegate] { delegate->updateProgressWithPercentDone(100.0); });
    reportToMainAndWait([delegate, status] { delegate->updateFinishedWithStatus(status); });
}

void QXUpdater::notifiedForStdOutput(const QByteArray &chunk)
{
    // The base class keeps reading either way, so the launcher never blocks
    // on a full pipe when nobody wants its output.
    if (!_delegateWantsUpdates)
        return;
    QXUpdaterDelegate *delegate = _delegate;
    const QStringList pieces = QString::fromUtf8(chunk).split(u'\n');
    for (const QString &piece : pieces) {
        if (piece.size() < 2)
            continue;
        if (!piece.startsWith(QLatin1String("Downloading"))) {
            reportToMainAndWait([delegate, piece] { delegate->updateProgressWithMessage(piece); });
            continue;
        }
        // "Downloading main.cvd [ 45%]": the name before the bracket, the
        // percentage from the three characters after it.
        const qsizetype bracket = piece.indexOf(u'[');
        const QString message = bracket < 0 ? piece : piece.left(bracket);
        reportToMainAndWait([delegate, message] { delegate->updateProgressWithMessage(message); });
        if (bracket < 0 || piece.size() - bracket - 1 < 3)
            continue;
        const double percent = leadingPercentage(piece.mid(bracket + 1, 3));
        reportToMainAndWait([delegate, percent] { delegate->updateProgressWithPercentDone(percent); });
    }
}

void QXUpdater::notifiedForStdError(const QByteArray &chunk)
{
    NSLog(QStringLiteral("error:%1").arg(QString::fromUtf8(chunk)));
}

bool QXUpdater::suspendUpdate()
{
    return suspendUnlessPaused();
}

bool QXUpdater::resumeUpdate()
{
    return resumeIfPaused();
}

bool QXUpdater::pause()
{
    return togglePause();
}

void QXUpdater::stop()
{
    stopChild();
}
