#include "AgentFixture.h"

#include "app/Dispatcher.h"

namespace {

TEST_F(AgentFixture, BatchLosesItsExcludedPathsBeforeTheScanAndOneLeftEmptyStartsNoScan)
{
    Dispatcher *dispatcher = agent->dispatcher();
    dispatcher->dispatchTimer()->stop();
    home.writeDomain(companionDomain,
                     {{QStringLiteral("ExcludePatterns"),
                       QVariantList{QVariantMap{{QStringLiteral("excludePattern"), QStringLiteral("/Private/")},
                                                {QStringLiteral("excludeEnabled"), true}}}}});
    const QString excluded = home.writeFile("Private/one", "contents");
    const QString trashed = home.writeFile(".local/share/Trash/files/two", "contents");
    const QString plain = home.writeFile("Documents/three", "contents");
    struct Row {
        QStringList batch;
        int leftOut;
    } rows[] = {{{excluded, trashed}, 2}, {{excluded, plain}, 1}, {{plain}, 0}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.batch.join(' ').toStdString());
        const qsizetype before = log.lines().size();
        agent->utils()->setScanning(false);
        agent->setReadyToScan(true);
        for (const QString &path : row.batch)
            dispatcher->addToWaitingList(path);
        dispatcher->updateSizesInWaitingList();

        const QStringList logged = log.lines().mid(before);
        EXPECT_TRUE(logged.contains(QStringLiteral("itemsToScan.count: %1").arg(row.batch.size())));
        const QStringList leftOut{QStringLiteral("left out of this scan: %1").arg(row.leftOut)};
        EXPECT_EQ(logged.filter(QStringLiteral("left out of this scan: ")), row.leftOut ? leftOut : QStringList{});
        const bool scanStarted = row.leftOut < row.batch.size();
        EXPECT_EQ(agent->utils()->scanning(), scanStarted);
        EXPECT_EQ(agent->readyToScan(), !scanStarted);
        EXPECT_TRUE(dispatcher->readyList().isEmpty());
    }
}

} // namespace
