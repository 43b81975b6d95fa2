#include "AgentFixture.h"

#include "platform/AppcastUpdater.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/PropertyList.h"
#include "tests/support/FeedServer.h"
#include "tests/support/RecordingWorkspace.h"

#include <QPointer>
#include <QTest>

namespace {

// Answers only the update offer as told; the engine check may ask questions
// of its own at any moment, and those get the default answer.
class OfferAnsweringPresenter : public AlertPresenter
{
public:
    OfferAnsweringPresenter() { AlertPresenter::setSharedPresenter(this); }
    ~OfferAnsweringPresenter() override { AlertPresenter::setSharedPresenter(nullptr); }
    int runModal(const Alert &alert) override
    {
        if (alert.messageText != Localization::text("KORVANE_UPDATE_AVAILABLE_TITLE"))
            return DefaultReturn;
        offers << alert;
        return answer;
    }

    int answer = DefaultReturn;
    QList<Alert> offers;
};

class UpdateCheckTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        KorvaneVarden_AppDelegate::setUpdateCheckInterval(50);
        const QString info = home.filePath("Info.plist");
        PropertyList::writeXmlFile(info,
                                   QVariantMap{{"CFBundleVersion", "0.1.0"}, {"SUFeedURL", server.url().toString()}});
        BundleInfo::setInfoPath(info);
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
    }
    void TearDown() override
    {
        AgentFixture::TearDown();
        BundleInfo::setInfoPath(QString());
        KorvaneVarden_AppDelegate::setUpdateCheckInterval(10000);
    }

    void allowChecks(bool allowed) const
    {
        // Something to watch, or the startup would stop at the nothing-to-watch alert.
        home.writeDomain(companionDomain, {{"SUEnableAutomaticChecks", allowed},
                                           {"VardenFolderArray", QVariantList{folder(home.path())}}});
    }
    QList<AlertPresenter::Alert> offers() const { return presenter.offers; }
    bool waitForRequests(int count)
    {
        return QTest::qWaitFor([&] { return server.requests >= count; }, 10000);
    }

    FeedServer server;
    RecordingWorkspace workspace;
    OfferAnsweringPresenter presenter;
};

TEST_F(UpdateCheckTest, OfferedUpdateIsAskedAboutOnceAndOnConsentHandedToTheCompanionThenChecksResume)
{
    for (const auto &[answer, opened] :
         {std::pair{int(AlertPresenter::DefaultReturn), 1}, {int(AlertPresenter::AlternateReturn), 0}}) {
        SCOPED_TRACE(answer);
        presenter.offers.clear();
        presenter.answer = answer;
        workspace.openedUrls.clear();
        server.body = FeedServer::appcast({"0.1.0", "0.2.0"});
        allowChecks(true);
        agent->continueStartup();

        ASSERT_TRUE(QTest::qWaitFor([&] { return !offers().isEmpty(); }, 10000));
        EXPECT_EQ(offers().size(), 1);
        EXPECT_EQ(workspace.openedUrls, QList<QUrl>(opened, QUrl("Korvane://update")));

        // The feed still offers it, so the resumed checks ask again.
        ASSERT_TRUE(QTest::qWaitFor([&] { return offers().size() >= 2; }, 10000));
        EXPECT_EQ(workspace.openedUrls.size(), 2 * opened);
    }
}

TEST_F(UpdateCheckTest, NothingIsAskedWhenChecksAreNotAllowedOrTheFeedOffersNothingNewer)
{
    server.body = FeedServer::appcast({"0.0.9", "0.1.0"});
    allowChecks(true);
    agent->continueStartup();
    ASSERT_TRUE(waitForRequests(3));
    EXPECT_TRUE(offers().isEmpty());

    server.body = FeedServer::appcast({"9.0"});
    allowChecks(false);
    agent->continueStartup();
    const int requests = server.requests;
    QTest::qWait(300);
    EXPECT_LE(server.requests, requests + 1); // one check may still have been under way
    EXPECT_TRUE(offers().isEmpty());
    EXPECT_TRUE(workspace.openedUrls.isEmpty());
}

TEST_F(UpdateCheckTest, EachStartupArmsOneTimerInPlaceOfTheLast)
{
    allowChecks(true);
    agent->continueStartup();
    QPointer<QTimer> first = agent->korvaneUpdateTimer();
    ASSERT_TRUE(first);
    agent->continueStartup();
    EXPECT_TRUE(first.isNull());
    ASSERT_NE(agent->korvaneUpdateTimer(), nullptr);
    EXPECT_TRUE(agent->korvaneUpdateTimer()->isActive());
}

} // namespace
