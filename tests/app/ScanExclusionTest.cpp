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
    struct Row
    {
        QStringList batch;
        bool scanStarted;
    } rows[] = {{{excluded, trashed}, false}, {{excluded, plain}, true}, {{plain}, true}};
    for (const auto &[batch, scanStarted] : rows) {
        SCOPED_TRACE(batch.join(' ').toStdString());
        agent->utils()->setScanning(false);
        agent->setReadyToScan(true);
        for (const QString &path : batch)
            dispatcher->addToWaitingList(path);
        dispatcher->updateSizesInWaitingList();

        EXPECT_EQ(agent->utils()->scanning(), scanStarted);
        EXPECT_EQ(agent->readyToScan(), !scanStarted);
        EXPECT_TRUE(dispatcher->readyList().isEmpty());
    }
}

} // namespace
