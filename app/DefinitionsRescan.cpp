#include "DefinitionsRescan.h"

#include "platform/RegularFile.h"
#include "platform/SystemLog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QLocale>
#include <QSaveFile>

namespace {

const QString pendingName = QStringLiteral("rescan-pending.journal");
const QString positionName = QStringLiteral("rescan-position");
const QString definitionsName = QStringLiteral("definitions-version");
constexpr qint64 pendingSizeLimit = qint64(512) << 20;
// A daemon that never reports the new definitions (one that is not
// reloaded) is scanned with after this many questions all the same.
constexpr int daemonQuestions = 120;

bool writeWhole(const QString &path, const QByteArray &text)
{
    QSaveFile file(path);
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(text);
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    return file.commit();
}

QByteArray readSmall(const QString &path)
{
    return RegularFile::read(path, pendingSizeLimit).value_or(QByteArray());
}

} // namespace

DefinitionsRescan::DefinitionsRescan(CleanScanJournal *journal, const QString &folder, QObject *parent)
    : QObject(parent)
    , _journal(journal)
    , _folder(folder)
{
    _askAgain.setSingleShot(true);
    _askAgain.setInterval(1000);
    connect(&_askAgain, &QTimer::timeout, this, &DefinitionsRescan::askDaemon);

    QDir dir(_folder);
    _definitions = QString::fromUtf8(readSmall(dir.filePath(definitionsName))).trimmed();
    // A list cut off by a crash is done up to the cut.
    const QList<QByteArray> lines = readSmall(dir.filePath(pendingName)).split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const std::optional<CleanScanJournal::Entry> entry = CleanScanJournal::entryOfLine(lines.at(i));
        if (!entry)
            break;
        _pending.append(*entry);
    }
    if (_pending.isEmpty() || lines.value(0) != "definitions " + _definitions.toUtf8().toPercentEncoding()) {
        _pending.clear();
        return;
    }
    _position = std::clamp<qsizetype>(readSmall(dir.filePath(positionName)).trimmed().toLongLong(), 0, _pending.size());
    _next = _position;
    if (hasPending())
        SystemLog::log(QStringLiteral("%1 files are still to be scanned again with the definitions %2")
                           .arg(_pending.size() - _position)
                           .arg(_definitions));
}

QString DefinitionsRescan::definitionsOf(const QString &engineVersion)
{
    return engineVersion.section(QLatin1Char('/'), 1).trimmed();
}

bool DefinitionsRescan::definitionsReported(const QString &engineVersion, bool enabled)
{
    const QString definitions = definitionsOf(engineVersion);
    if (definitions.isEmpty() || definitions == _definitions)
        return false;
    const bool first = _definitions.isEmpty();
    _definitions = definitions;
    if (!writeWhole(QDir(_folder).filePath(definitionsName), definitions.toUtf8()))
        SystemLog::log(QStringLiteral("cannot write %1 in %2").arg(definitionsName, _folder));
    // A rescan of older definitions is overtaken by this one.
    _pending.clear();
    _position = _next = 0;
    _daemonHasThem = false;
    _daemonAsked = 0;
    if (first || !enabled) {
        save();
        return false;
    }
    // The newest first: what came in last is likeliest to be what the
    // definitions were missing.
    const QList<CleanScanJournal::Entry> entries = _journal->entries();
    _pending = QList<CleanScanJournal::Entry>(entries.crbegin(), entries.crend());
    save();
    SystemLog::log(QStringLiteral("the definitions are now %1: %2 files scanned clean before are scanned again")
                       .arg(definitions)
                       .arg(_pending.size()));
    return hasPending();
}

void DefinitionsRescan::clear()
{
    if (_pending.isEmpty())
        return;
    _pending.clear();
    _position = _next = 0;
    save();
}

bool DefinitionsRescan::readyToFeed()
{
    if (!hasPending())
        return false;
    if (_daemonHasThem)
        return true;
    if (!_asking && !_askAgain.isActive())
        askDaemon();
    return false;
}

void DefinitionsRescan::askDaemon()
{
    if (_asking || _enginePath.isEmpty())
        return;
    if (++_daemonAsked > daemonQuestions) {
        SystemLog::log(QStringLiteral("the scan daemon does not report the definitions %1: scanning again all the same")
                           .arg(_definitions));
        _daemonHasThem = true;
        return;
    }
    // The daemon loads new definitions in the background; a file scanned
    // again with the old ones would only be found clean once more.
    auto *process = new QProcess(this);
    _asking = process;
    connect(process, &QProcess::finished, this, [this, process] {
        const QString version = QString::fromUtf8(process->readAllStandardOutput()).trimmed();
        process->deleteLater();
        _daemonHasThem = definitionsOf(version) == _definitions;
        if (!_daemonHasThem)
            _askAgain.start();
    });
    connect(process, &QProcess::errorOccurred, this, [this, process](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        process->deleteLater();
        _askAgain.start();
    });
    process->start(QDir::cleanPath(_enginePath + QStringLiteral("/bin/clamdscan")), {QStringLiteral("--version")});
}

QStringList DefinitionsRescan::takeBatch(int max)
{
    QStringList batch;
    while (_next < _pending.size() && batch.size() < max) {
        const CleanScanJournal::Entry &entry = _pending.at(_next++);
        if (CleanScanJournal::unchanged(entry))
            batch.append(entry.path);
    }
    return batch;
}

void DefinitionsRescan::batchDone()
{
    _position = _next;
    if (hasPending()) {
        savePosition();
        return;
    }
    SystemLog::log(
        QStringLiteral("the files scanned clean before the definitions %1 have been scanned again").arg(_definitions));
    _pending.clear();
    _position = _next = 0;
    save();
}

QString DefinitionsRescan::updateDate() const
{
    const QString date = _definitions.section(QLatin1Char('/'), 1).simplified();
    const QDateTime when = QLocale::c().toDateTime(date, QStringLiteral("ddd MMM d HH:mm:ss yyyy"));
    return when.isValid() ? QLocale().toString(when, QLocale::ShortFormat) : _definitions;
}

QString DefinitionsRescan::logLineForBatch(const QStringList &batch) const
{
    return QStringLiteral("Scanning again, because the definitions changed to %1 (update of %2), files found clean "
                          "before: %3\n  %4")
        .arg(_definitions, updateDate())
        .arg(batch.size())
        .arg(batch.join(QStringLiteral("\n  ")));
}

void DefinitionsRescan::save()
{
    QByteArray text = "definitions " + _definitions.toUtf8().toPercentEncoding() + '\n';
    for (const CleanScanJournal::Entry &entry : std::as_const(_pending))
        text += CleanScanJournal::lineOf(entry);
    const QDir dir(_folder);
    if (!writeWhole(dir.filePath(pendingName), text))
        SystemLog::log(QStringLiteral("cannot write %1 in %2").arg(pendingName, _folder));
    savePosition();
}

void DefinitionsRescan::savePosition()
{
    if (!writeWhole(QDir(_folder).filePath(positionName), QByteArray::number(_position)))
        SystemLog::log(QStringLiteral("cannot write %1 in %2").arg(positionName, _folder));
}
