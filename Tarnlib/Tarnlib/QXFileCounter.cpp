#include "QXFileCounter.h"

#include "QXFileCounterDelegate.h"
#include "platform/SystemLog.h"

#include <QDir>
#include <QFileInfo>
#include <QMetaObject>

#include <exception>

QXFileCounter::QXFileCounter(QXFileCounterDelegate *delegate, QObject *mainThreadContext)
    : _delegate(delegate)
    , _mainThreadContext(mainThreadContext)
{}

void QXFileCounter::start()
{
    if (!_cancelled)
        main();
}

void QXFileCounter::main()
{
    try {
        const bool quarantineOn = _delegate->quarantineFiles();
        const QString quarantineDir = _delegate->quarantineLocation();
        const QList<QXExclusionPredicate> excludes = _delegate->counterExcludes();
        qint64 total = 0;
        for (const QString &path : _thePathsToScan) {
            if (path.endsWith(QLatin1String("savedSearch"))) {
                for (const QString &found : _delegate->obtainFilesForSavedSearchAtPath(path))
                    total += countFilesForPath(found, excludes, quarantineOn, quarantineDir);
                total += 1;
            } else {
                total += countFilesForPath(path, excludes, quarantineOn, quarantineDir);
            }
        }
        SystemLog::log(QStringLiteral("filecount = %1").arg(total));
        QXFileCounterDelegate *delegate = _delegate;
        QObject *context = _mainThreadContext.data();
        if (context)
            QMetaObject::invokeMethod(
                context, [delegate, total] { delegate->fileCounterReturned(total); }, Qt::BlockingQueuedConnection);
    } catch (const std::exception &exception) {
        SystemLog::log(QStringLiteral("FileCounter crashed but we should be able to carry on.  If you see this in your "
                                      "log file, please post it at support@korvane.org - %1")
                           .arg(QString::fromLocal8Bit(exception.what())));
    }
}

int QXFileCounter::countFilesForPath(const QString &path, const QList<QXExclusionPredicate> &excludeList,
                                     bool quarantineOn, const QString &quarantineDir)
{
    const bool rootVolume = path == QLatin1String("/");
    const QFileInfo info(path);
    if (!info.exists() || !info.isDir())
        return 1;

    const QString base = rootVolume ? QString() : QDir::cleanPath(path);
    int count = 0;
    // Depth first, an entry before what it holds; only folders that no rule
    // prunes are entered, and links are not followed.
    QStringList pending{QString()};
    while (!pending.isEmpty()) {
        const QString relativeFolder = pending.takeLast();
        const QFileInfoList entries =
            QDir(base + QLatin1Char('/') + relativeFolder)
                .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        QStringList subfolders;
        for (const QFileInfo &entry : entries) {
            const QString relative =
                relativeFolder.isEmpty() ? entry.fileName() : relativeFolder + QLatin1Char('/') + entry.fileName();
            const QString full = base + QLatin1Char('/') + relative;
            bool descend = true;
            if (rootVolume) {
                for (const QString &prefix : _delegate->exclusionStringsForRootVolScan()) {
                    if (full.startsWith(prefix)) {
                        SystemLog::log(QStringLiteral("skipping %1").arg(full));
                        descend = false;
                    }
                }
            }
            for (const QXExclusionPredicate &predicate : excludeList) {
                if (predicate.evaluate(full)) {
                    SystemLog::log(QStringLiteral("skipping %1").arg(relative));
                    descend = false;
                }
            }
            if (entry.isDir() && !entry.isSymLink()) {
                if (quarantineOn && !quarantineDir.isEmpty() && full.startsWith(quarantineDir)) {
                    SystemLog::log(QStringLiteral("skipping %1").arg(full));
                    descend = false;
                }
                if (descend)
                    subfolders.prepend(relative);
            } else {
                // Rules only prune folders; a matching file still counts.
                ++count;
            }
            if (_cancelled)
                return count;
        }
        pending << subfolders;
    }
    return count;
}
