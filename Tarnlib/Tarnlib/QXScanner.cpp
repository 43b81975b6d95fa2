#include "QXScanner.h"

#include "ClamdConfiguration.h"
#include "QXScannerDelegate.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QMutexLocker>
#include <QUuid>

#include <algorithm>

namespace {

// A result line reads "<path>: <result>"; an infection's result is its name
// and this mark.
constexpr QLatin1String nameSeparator(": ");
constexpr QLatin1String foundMark(" FOUND");
constexpr QLatin1String unofficialMark(".UNOFFICIAL");

// "2014-03-05 14:07:09 +0000": local time and its offset from UTC.
QString dateText()
{
    const QDateTime now = QDateTime::currentDateTime();
    const int offset = now.offsetFromUtc();
    const int minutes = qAbs(offset) / 60;
    return now.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss ")) + QLatin1Char(offset < 0 ? '-' : '+')
           + QStringLiteral("%1%2")
                 .arg(minutes / 60, 2, 10, QLatin1Char('0'))
                 .arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

// Each folder replaced by the regular files below it, as the daemon would
// walk it (no links followed, no special files); a folder without any stays.
QStringList filesOfFolders(const QStringList &paths)
{
    QStringList files;
    for (const QString &path : paths) {
        const QFileInfo info(path);
        const qsizetype before = files.size();
        if (info.isDir() && !info.isSymLink()) {
            for (QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
                 it.hasNext();)
                files << it.next();
        }
        if (files.size() == before)
            files << path;
    }
    return files;
}

} // namespace

QXScanner::QXScanner(QXScannerDelegate *delegate, QObject *parent)
    : QXWorkerThread(parent)
    , _delegate(delegate)
    , _returnCharData("\n")
{
    _delegateWantsUpdates = _delegate->wantScanStatusUpdates();
    _usingClamd = _delegate->useClamd();
}

QXScanner::~QXScanner()
{
    stopThread();
}

QString QXScanner::pathForTemporaryFileWithPrefix(const QString &prefix)
{
    const QString uuid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    return QDir::tempPath() + QLatin1Char('/') + prefix + QLatin1Char('-') + uuid;
}

int QXScanner::daemonThreadsInConfiguration(const QString &path)
{
    bool number = false;
    const int threads = ClamdConfiguration::fromFile(path).value(QStringLiteral("MaxThreads")).toInt(&number);
    return number && threads > 0 ? threads : 10;
}

int QXScanner::clientsForBatch(qsizetype files, int daemonThreads)
{
    if (files < smallBatchLimit)
        return 1;
    return int(std::clamp<qsizetype>(files / filesPerClientAtLeast, 1, std::max(daemonThreads, 1)));
}

void QXScanner::runScanOnFiles(const QStringList &paths, const QString &note)
{
    QXScannerDelegate *delegate = _delegate;
    reportToMainAndWait([delegate] { delegate->scanStarted(); });
    beginRun(paths, note);
    // The daemon's client names each file of a list as the daemon answers it,
    // but of a folder only what was found: whoever follows the scan gets its
    // folders as their files, which also shares them among the clients.
    if (_usingClamd && _delegateWantsUpdates)
        _thePathsToScan = filesOfFolders(_thePathsToScan);

    // A newline would cut a name in the list and in the engine's output, so
    // such a name is scanned in a call of its own.
    QStringList listed, alone;
    for (const QString &path : std::as_const(_thePathsToScan))
        (path.contains(QLatin1Char('\n')) ? alone : listed).append(path);

    const QString program = QDir::cleanPath(
        delegate->enginePath() + (_usingClamd ? QStringLiteral("/bin/clamdscan") : QStringLiteral("/bin/clamscan")));
    reportEnd(program, runListedAndAlone(program, listed, alone));
    closeScanLog();
    _thePathsToScan.clear();
}

void QXScanner::beginRun(const QStringList &paths, const QString &note)
{
    _logScans = _delegate->logScans();
    _childOutputs.clear();
    _clientListPaths.clear();
    _unscanned.clear();
    _foundInRun = false;
    _stopRequested = false;
    clearPaused();
    _thePathsToScan = paths;
    setScanListTempFilePath(pathForTemporaryFileWithPrefix(QStringLiteral("Korvane")));

    openScanLog();
    if (_usingClamd)
        writeToLog(dateText());
    else
        writeToLog(QStringLiteral("%1\n%2\nItems to be scanned:\n").arg(QString(79, QLatin1Char('-')), dateText()));
    if (!note.isEmpty())
        writeToLog(note);
}

QXScanner::RunResult QXScanner::runListedAndAlone(const QString &program, const QStringList &listed,
                                                  const QStringList &alone)
{
    QXScannerDelegate *delegate = _delegate;
    // The daemon client scans one file at a time, so a large batch is
    // shared among as many clients as the daemon has threads.
    const int clients =
        _usingClamd && delegate->engineSupportsFileListFlag() ? clientsForBatch(
            listed.size(), daemonThreadsInConfiguration(delegate->enginePath() + QStringLiteral("/etc/clamd.conf")))
                                                              : 1;
    RunResult result;
    bool ran = false;
    if (!listed.isEmpty() || alone.isEmpty()) {
        result = clients > 1 ? runSplit(program, listed, clients)
                             : runPart(program, argumentsForBatch(listed, _scanListTempFilePath), QString());
        ran = true;
    }
    for (const QString &path : alone) {
        // A run that could not start, or was stopped or killed, ends the batch.
        if (ran && (!result.started || result.crashed || _stopRequested))
            break;
        const RunResult one = runPart(program, commonArguments(QStringList{path}) << path, path);
        if (!ran || !one.started || one.crashed || result.status == 0)
            result = one;
        ran = true;
    }
    return result;
}

void QXScanner::reportEnd(const QString &program, const RunResult &result)
{
    QXScannerDelegate *delegate = _delegate;
    if (!result.started) {
        const QString reason = QStringLiteral("launch path not accessible: %1: %2").arg(program, result.error);
        reportToMainAndWait([delegate, reason] { delegate->scanCrashed(reason); });
    } else if (result.silent && _usingClamd) {
        // A silent daemon client most likely waits on a daemon that hangs:
        // the batch ends as one whose daemon was lost, so that the
        // coordinator can start the daemon again and scan it once more.
        _unscanned = _thePathsToScan;
        RunResult lost;
        lost.started = true;
        lost.status = 2;
        notifiedForComplete(lost);
    } else if (result.silent) {
        QFile::remove(_scanListTempFilePath);
        for (const QString &list : std::as_const(_clientListPaths))
            QFile::remove(list);
        const QString reason = QStringLiteral("%1 gave no output for %2 s and was ended")
                                   .arg(program)
                                   .arg(std::chrono::duration_cast<std::chrono::seconds>(silenceLimit()).count());
        reportToMainAndWait([delegate, reason] { delegate->scanCrashed(reason); });
    } else {
        notifiedForComplete(result);
    }
}

void QXScanner::closeScanLog()
{
    if (!_loggerFileHandle)
        return;
    _loggerFileHandle->write(_returnCharData);
    _loggerFileHandle->close();
    _loggerFileHandle.reset();
}

void QXScanner::openScanLog()
{
    _loggerFileHandle.reset();
    // The log is made elsewhere; a missing one means no logging.
    const QString path = _delegate->pathToScanLog();
    if (path.isEmpty())
        return;
    auto file = std::make_unique<QFile>(path);
    if (file->open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::ExistingOnly))
        _loggerFileHandle = std::move(file);
}

QXWorkerThread::RunResult QXScanner::runPart(const QString &program, const QStringList &arguments,
                                             const QString &pathAlone)
{
    _childOutputs = std::vector<ChildOutput>(1);
    _pathAlone = pathAlone;
    const RunResult result = runChild(program, arguments);
    takeRest(_childOutputs.front());
    _pathAlone.clear();
    return result;
}

void QXScanner::takeRest(ChildOutput &output)
{
    // A name scanned alone may span lines, so its output is read only now.
    if (!_pathAlone.isEmpty()) {
        QString rest = output.partialOutput;
        output.partialOutput.clear();
        rest.replace(_pathAlone, QString(QChar(0)));
        for (QString &line : rest.split(QLatin1Char('\n'))) {
            line.replace(QChar(0), _pathAlone);
            takeLine(output, line);
        }
    }
    takeLastLine(output);
}

QXWorkerThread::RunResult QXScanner::runSplit(const QString &program, const QStringList &paths, int clients)
{
    QList<QStringList> parts(clients);
    for (qsizetype i = 0; i < paths.size(); ++i)
        parts[i % clients].append(paths.at(i));
    _childOutputs = std::vector<ChildOutput>(size_t(clients));
    QList<Command> commands;
    for (int i = 0; i < clients; ++i) {
        const QString list = _scanListTempFilePath + QStringLiteral("-%1").arg(i + 1);
        _clientListPaths.append(list);
        ChildOutput &output = _childOutputs[size_t(i)];
        commands.append({program, argumentsForBatch(parts.at(i), list, &output.listed)});
        output.unanswered = QSet<QString>(output.listed.cbegin(), output.listed.cend());
    }
    const QList<RunResult> results = runChildren(commands);

    // One end for the batch, as one client would have given it.
    RunResult batch;
    batch.started = true;
    bool failed = false;
    // Every client killed at once from outside is the user's Abort Scans,
    // not a client lost on its own: the batch ends as one killed client's
    // would, and nothing is left for a second run.
    const bool allKilled = !_stopRequested && std::all_of(results.begin(), results.end(), [](const RunResult &result) {
        return result.started && result.crashed && !result.silent;
    });
    for (int i = 0; i < clients; ++i) {
        ChildOutput &output = _childOutputs[size_t(i)];
        takeLastLine(output);
        const RunResult &result = results.at(i);
        if (!result.started)
            return result;
        failed = failed || result.crashed || result.status >= 2;
        // A client that was killed or hung leaves the rest of its list unscanned.
        if (result.crashed && !allKilled) {
            for (const QString &path : std::as_const(output.listed)) {
                if (output.unanswered.contains(path))
                    _unscanned.append(path);
            }
        }
    }
    if (allKilled)
        return results.first();
    batch.status = _foundInRun ? 1 : failed ? 2 : 0;
    return batch;
}

void QXScanner::takeLine(ChildOutput &output, const QString &line)
{
    // The engine answers "name: result" for each listed name; a name may
    // hold ": " itself.
    for (qsizetype at = line.indexOf(QLatin1String(": ")); at > 0 && !output.unanswered.isEmpty();
         at = line.indexOf(QLatin1String(": "), at + 1)) {
        if (output.unanswered.remove(line.left(at)))
            break;
    }
    _foundInRun = _foundInRun || foundInLine(line);
    handleLine(line);
}

void QXScanner::takeLastLine(ChildOutput &output)
{
    // Output that ends without a newline still holds a whole line.
    const QString rest = output.partialOutput;
    output.partialOutput.clear();
    takeLine(output, rest);
}

QStringList QXScanner::argumentsForBatch(const QStringList &paths, const QString &listPath, QStringList *listed)
{
    QStringList arguments = commonArguments(paths);
    QXScannerDelegate *delegate = _delegate;
    if (!delegate->engineSupportsFileListFlag())
        return arguments << paths;

    QString listText = paths.join(QLatin1Char('\n'));
    for (const QString &path : paths) {
        if (!path.endsWith(QLatin1String("savedSearch")))
            continue;
        bool whole = true;
        const QString found = delegate->obtainFilesForSavedSearchAtPath(path, &whole).join(QLatin1Char('\n'));
        if (!whole)
            writeToLog(path + QStringLiteral(": saved search cut at its limit, not scanned whole"));
        if (found.size() >= 3)
            listText += QLatin1Char('\n') + found;
    }
    if (listed)
        *listed = listText.split(QLatin1Char('\n'));
    // A list that cannot be written shows up as the engine's own error.
    QFile listFile(listPath);
    if (listFile.open(QIODevice::WriteOnly | QIODevice::Truncate))
        listFile.write(QFile::encodeName(listText));
    listFile.close();
    if (!_usingClamd)
        writeToLog(listText + QStringLiteral("\n\n"));
    return arguments << QStringLiteral("--file-list=") + listPath;
}

QStringList QXScanner::commonArguments(const QStringList &paths)
{
    QXScannerDelegate *delegate = _delegate;
    QStringList arguments;
    if (!_usingClamd) {
        arguments << QStringLiteral("-rv");
        arguments << delegate->exclusionStrings();
        for (const QString &path : paths) {
            if (path != QLatin1String("/"))
                continue;
            for (const QString &entry : delegate->exclusionStringsForRootVolScan())
                arguments << QStringLiteral("--exclude=^") + entry << QStringLiteral("--exclude-dir=^") + entry;
        }
        if (delegate->quarantineFiles()) {
            const QString location = delegate->quarantineLocation();
            arguments << QStringLiteral("--exclude=^") + location << QStringLiteral("--exclude-dir=^") + location;
        }
        arguments << (delegate->scanEmailFiles() ? QStringLiteral("--scan-mail=yes")
                                                 : QStringLiteral("--scan-mail=no"));
    }
    if (_usingClamd || delegate->suppressSummary())
        arguments << QStringLiteral("--no-summary");
    if (delegate->hasAdditionalCmdArgs())
        arguments << delegate->additionalCmdArgs().split(QLatin1Char(' '), Qt::KeepEmptyParts);
    return arguments;
}

void QXScanner::writeToLog(const QString &text)
{
    if (!_logScans || !_loggerFileHandle)
        return;
    _loggerFileHandle->write(text.toUtf8());
    _loggerFileHandle->write(_returnCharData);
    _loggerFileHandle->flush();
}

void QXScanner::notifiedForStdOutput(const QByteArray &chunk)
{
    notifiedForChildOutput(0, chunk);
}

void QXScanner::notifiedForChildOutput(int child, const QByteArray &chunk)
{
    if (child < 0 || size_t(child) >= _childOutputs.size())
        return;
    ChildOutput &output = _childOutputs[size_t(child)];
    const QString text = output.partialOutput + QString(output.outputDecoder.decode(chunk));
    if (!_pathAlone.isEmpty()) {
        output.partialOutput = text;
        return;
    }
    QStringList lines = text.split(QLatin1Char('\n'));
    output.partialOutput = lines.takeLast();
    for (const QString &line : std::as_const(lines))
        takeLine(output, line);
}

std::optional<QXScanner::Found> QXScanner::foundInLine(const QString &line)
{
    if (!line.endsWith(foundMark))
        return std::nullopt;
    const QStringView result = QStringView(line).chopped(foundMark.size());
    const qsizetype separator = result.lastIndexOf(nameSeparator);
    const QStringView name = result.mid(separator + nameSeparator.size());
    if (separator <= 0 || name.isEmpty())
        return std::nullopt;
    return Found{result.left(separator).toString(), name.toString()};
}

QString QXScanner::foundLine(const Found &found)
{
    return found.path + nameSeparator + found.infectionName + foundMark;
}

void QXScanner::handleLine(const QString &line)
{
    if (line.size() < 2)
        return;
    QXScannerDelegate *delegate = _delegate;
    if (line.startsWith(QLatin1String("Scanning"))) {
        if (_delegateWantsUpdates) {
            reportToMain([delegate, line] { delegate->updateProgressWithMessage(line); });
            reportToMain([delegate] { delegate->updateProgressBar(); });
        }
        return;
    }
    writeToLog(line);
    // The daemon's client names each file once it has the daemon's answer:
    // for whoever follows the scan, that is the stand-alone scanner's "Scanning".
    static const QLatin1String cleanMark(": OK");
    if (_usingClamd && _delegateWantsUpdates && line.endsWith(cleanMark)) {
        const QString scanning = QStringLiteral("Scanning ") + line.chopped(cleanMark.size());
        reportToMain([delegate, scanning] { delegate->updateProgressWithMessage(scanning); });
        reportToMain([delegate] { delegate->updateProgressBar(); });
        return;
    }
    if (std::optional<Found> found = foundInLine(line)) {
        // Our own signatures carry the engine's mark of unofficial ones, which
        // is no part of the infection's name.
        if (found->infectionName.endsWith(unofficialMark))
            found->infectionName.chop(unofficialMark.size());
        const QString reported = foundLine(*found);
        reportToMain([delegate, reported] { delegate->infectionFound(reported); });
    } else if (line.contains(QLatin1String("virus database is older than"))) {
        const QString warning = Localization::text("DB_OUT_OF_DATE");
        reportToMain([delegate] { delegate->appendToConsole(QStringLiteral("\n")); });
        reportToMain([delegate, warning] { delegate->appendToConsole(warning); });
    } else if (line.contains(QLatin1String("size limit exceeded"), Qt::CaseInsensitive)
               && (line.endsWith(QLatin1String(" ERROR")) || line.endsWith(QLatin1String(" ERROR\"")))) {
        // A file larger than the scanning service takes was not scanned; the
        // scan log has the line, the system log says so plainly.
        NSLog(QStringLiteral("not scanned, larger than the scanning service takes: %1").arg(line));
    }
}

void QXScanner::notifiedForComplete(const RunResult &result)
{
    QXScannerDelegate *delegate = _delegate;
    QFile::remove(_scanListTempFilePath);
    for (const QString &list : std::as_const(_clientListPaths))
        QFile::remove(list);
    if (!_unscanned.isEmpty()) {
        const QStringList unscanned = _unscanned;
        reportToMainAndWait([delegate, unscanned] { delegate->filesLeftUnscanned(unscanned); });
    }
    if (_delegateWantsUpdates)
        reportToMainAndWait([delegate] { delegate->updateProgressWithPercentDone(100.0); });
    const int status = result.status;
    reportToMainAndWait([delegate, status] { delegate->scanFinishedWithStatus(status); });
}

bool QXScanner::suspendScan()
{
    return suspendUnlessPaused();
}

bool QXScanner::resumeScan()
{
    return resumeIfPaused();
}

bool QXScanner::pause()
{
    return togglePause();
}

void QXScanner::stop()
{
    if (hasChild())
        _stopRequested = true;
    stopChild();
}
