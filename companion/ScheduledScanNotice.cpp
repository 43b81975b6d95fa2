#include "ScheduledScanNotice.h"

#include "platform/SystemLog.h"
#include "platform/UserFolders.h"
#include "platform/UserNotificationCenter.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

namespace {

// A notification that cannot be shown is known to have failed by then.
constexpr int serviceCheckMs = 3000;

} // namespace

QString ScheduledScanNotice::resultsPath()
{
    return UserFolders::logs() + QStringLiteral("/scheduled-scan-results.json");
}

QString ScheduledScanNotice::keep(const QList<InfectedItem> &rows, const QString &path)
{
    QDir().mkpath(QFileInfo(path).path());
    QXTInfectedViewArrayController list;
    // The store's writer alone: the rows of an earlier scan are replaced, not merged.
    InfectedItemsStore store(&list, path);
    return store.write(rows);
}

bool ScheduledScanNotice::notifyAndWait(const QString &text, const QString &korvaneProgram, int waitMs,
                                        const QString &path)
{
    UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
    QEventLoop loop;
    bool clicked = false;
    QObject::connect(center, &UserNotificationCenter::activated, &loop, [&] {
        clicked = true;
        if (!QProcess::startDetached(korvaneProgram, {QStringLiteral("--show-results"), path}))
            SystemLog::log(QStringLiteral("could not start %1 to show the scan's results").arg(korvaneProgram));
        loop.quit();
    });
    QObject::connect(center, &UserNotificationCenter::closed, &loop, &QEventLoop::quit);
    center->deliverNotification(QCoreApplication::translate("ScheduledScanNotice", "Korvane's scheduled scan found "
                                                                                   "infected files"),
                                text);
    // Nobody will click where no notification could be shown.
    QTimer::singleShot(serviceCheckMs, &loop, [&] {
        if (!center->canDeliver())
            loop.quit();
    });
    QTimer::singleShot(waitMs, &loop, &QEventLoop::quit);
    loop.exec();
    return clicked;
}
