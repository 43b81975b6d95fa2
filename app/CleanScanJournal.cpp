#include "CleanScanJournal.h"

#include "platform/FileMove.h"
#include "platform/RegularFile.h"
#include "platform/SystemLog.h"
#include "platform/UserFolders.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString fileName = QStringLiteral("clean-scans.journal");
// Far above what the bounds let the file reach; a larger one is not ours.
constexpr qint64 fileSizeLimit = qint64(512) << 20;
// Below this many live entries the file is not rewritten for their sake.
constexpr qsizetype compactionFloor = 1000;

QByteArray checksumOf(const QByteArray &text)
{
    return QByteArray::number(qChecksum(text), 16).rightJustified(4, '0');
}

} // namespace

CleanScanJournal::CleanScanJournal(const QString &folder, QObject *parent)
    : QObject(parent)
    , _folder(folder)
{
    _flushTimer.setSingleShot(true);
    _flushTimer.setInterval(flushDelayMs);
    connect(&_flushTimer, &QTimer::timeout, this, &CleanScanJournal::flush);
}

CleanScanJournal::~CleanScanJournal()
{
    flush();
}

QString CleanScanJournal::defaultFolder()
{
    return UserFolders::logs();
}

QString CleanScanJournal::filePath() const
{
    return QDir(_folder).filePath(fileName);
}

bool CleanScanJournal::load()
{
    _usable = false;
    _entries.clear();
    _unwritten.clear();
    _linesInFile = 0;
    QDir().mkpath(QFileInfo(_folder).path());
    if (const int error = FileMove::makePrivateFolder(_folder)) {
        _problem = QStringLiteral("cannot make %1: %2").arg(_folder, FileMove::errorText(error));
        return false;
    }
    // Another user who could write here could plant what we read.
    struct stat folder;
    if (::lstat(QFile::encodeName(_folder).constData(), &folder) != 0 || !S_ISDIR(folder.st_mode)
        || folder.st_uid != ::getuid() || (folder.st_mode & 022)) {
        _problem = QStringLiteral("%1 is not a folder of this user's alone").arg(_folder);
        return false;
    }
    RegularFile::Status status;
    QString error;
    const std::optional<QByteArray> text = RegularFile::read(filePath(), fileSizeLimit, &status, &error);
    if (!text && status != RegularFile::Status::Missing) {
        _problem = QStringLiteral("cannot read %1: %2").arg(filePath(), error);
        return false;
    }
    bool damaged = false;
    if (text) {
        qsizetype start = 0;
        while (start < text->size()) {
            const qsizetype end = text->indexOf('\n', start);
            const std::optional<Entry> entry =
                end < 0 ? std::nullopt : entryOfLine(QByteArray::fromRawData(text->constData() + start, end - start));
            if (!entry) {
                damaged = true;
                SystemLog::log(QStringLiteral("%1: damaged at byte %2, read up to there").arg(filePath()).arg(start));
                break;
            }
            _entries.insert(entry->path, *entry);
            ++_linesInFile;
            start = end + 1;
        }
    }
    _usable = true;
    _problem.clear();
    dropStale();
    // Appends after a damaged line would never be read again.
    if (damaged && !compact()) {
        _usable = false;
        return false;
    }
    return true;
}

std::optional<CleanScanJournal::Entry> CleanScanJournal::entryForFile(const QString &path)
{
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    Entry entry;
    entry.path = path;
    entry.device = quint64(info.st_dev);
    entry.inode = quint64(info.st_ino);
    entry.size = quint64(info.st_size);
    entry.mtimeNs = qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    entry.ctimeNs = qint64(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
    return entry;
}

bool CleanScanJournal::unchanged(const Entry &entry)
{
    const std::optional<Entry> now = entryForFile(entry.path);
    return now && now->sameFileAs(entry);
}

void CleanScanJournal::record(const QList<Entry> &entries)
{
    if (!_usable || entries.isEmpty())
        return;
    for (const Entry &entry : entries) {
        _entries.insert(entry.path, entry);
        _unwritten += lineOf(entry);
        ++_linesInFile;
    }
    if (!_flushTimer.isActive())
        _flushTimer.start();
}

void CleanScanJournal::flush()
{
    _flushTimer.stop();
    if (!_usable || _unwritten.isEmpty())
        return;
    if (_entries.size() > _maxEntries || _linesInFile > 2 * std::max<qsizetype>(_entries.size(), compactionFloor)) {
        dropStale();
        compact();
        return;
    }
    if (const int error = FileMove::appendDurably(filePath(), _unwritten)) {
        // A link planted in place of the file is refused by the open.
        SystemLog::log(QStringLiteral("cannot write %1: %2").arg(filePath(), FileMove::errorText(error)));
        return;
    }
    _unwritten.clear();
}

QList<CleanScanJournal::Entry> CleanScanJournal::entries() const
{
    const qint64 oldest = QDateTime::currentMSecsSinceEpoch() - qint64(_maxAgeDays) * 24 * 3600 * 1000;
    QList<Entry> live;
    live.reserve(_entries.size());
    for (const Entry &entry : _entries) {
        if (entry.scannedAt >= oldest)
            live.append(entry);
    }
    std::sort(live.begin(), live.end(), [](const Entry &a, const Entry &b) { return a.scannedAt < b.scannedAt; });
    return live;
}

void CleanScanJournal::dropStale()
{
    QList<Entry> live = entries();
    if (live.size() == _entries.size() && live.size() <= _maxEntries)
        return;
    if (live.size() > _maxEntries)
        live.erase(live.begin(), live.end() - _maxEntries);
    _entries.clear();
    for (const Entry &entry : std::as_const(live))
        _entries.insert(entry.path, entry);
}

bool CleanScanJournal::compact()
{
    // Written new and renamed over the old, which also replaces a planted
    // link rather than writing through it.
    QSaveFile file(filePath());
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly)) {
        SystemLog::log(QStringLiteral("cannot rewrite %1: %2").arg(filePath(), file.errorString()));
        return false;
    }
    QByteArray text;
    for (const Entry &entry : entries())
        text += lineOf(entry);
    file.write(text);
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    if (!file.commit()) {
        SystemLog::log(QStringLiteral("cannot rewrite %1: %2").arg(filePath(), file.errorString()));
        return false;
    }
    _linesInFile = _entries.size();
    _unwritten.clear();
    return true;
}

QByteArray CleanScanJournal::lineOf(const Entry &entry)
{
    QByteArray line = QByteArray::number(entry.device) + ' ' + QByteArray::number(entry.inode) + ' '
                      + QByteArray::number(entry.size) + ' ' + QByteArray::number(entry.mtimeNs) + ' '
                      + QByteArray::number(entry.ctimeNs) + ' ' + QByteArray::number(entry.scannedAt) + ' '
                      + QFile::encodeName(entry.path).toPercentEncoding("/");
    return line + ' ' + checksumOf(line) + '\n';
}

std::optional<CleanScanJournal::Entry> CleanScanJournal::entryOfLine(const QByteArray &line)
{
    const qsizetype lastSpace = line.lastIndexOf(' ');
    if (lastSpace < 0 || line.mid(lastSpace + 1) != checksumOf(line.left(lastSpace)))
        return std::nullopt;
    const QList<QByteArray> fields = line.left(lastSpace).split(' ');
    if (fields.size() != 7 || fields.at(6).isEmpty())
        return std::nullopt;
    bool ok[6];
    Entry entry;
    entry.device = fields.at(0).toULongLong(&ok[0]);
    entry.inode = fields.at(1).toULongLong(&ok[1]);
    entry.size = fields.at(2).toULongLong(&ok[2]);
    entry.mtimeNs = fields.at(3).toLongLong(&ok[3]);
    entry.ctimeNs = fields.at(4).toLongLong(&ok[4]);
    entry.scannedAt = fields.at(5).toLongLong(&ok[5]);
    entry.path = QFile::decodeName(QByteArray::fromPercentEncoding(fields.at(6)));
    if (!std::all_of(std::begin(ok), std::end(ok), [](bool b) { return b; })
        || !entry.path.startsWith(QLatin1Char('/')))
        return std::nullopt;
    return entry;
}
