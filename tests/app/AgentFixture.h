#pragma once

#include "app/KorvaneVarden_AppDelegate.h"
#include "platform/ApplicationHost.h"
#include "platform/SleepWakeNotifier.h"
#include "platform/StatusItem.h"
#include "tests/support/AnsweringAlertPresenter.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPrefix.h"

#include <gtest/gtest.h>
#include <memory>

// A controller in a home of its own, with the application's termination
// taken by the test, alerts answered by the test and the sleep notifier
// driven by hand. Its engine answers the version check but has no daemon to
// start, so the startup stops there unless a test continues it.
class AgentFixture : public ::testing::Test
{
protected:
    static inline const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");
    static inline const QString companionDomain = QStringLiteral("org.korvane.Korvane");

    void SetUp() override
    {
        SleepWakeNotifier::setSharedNotifier(&sleep);
        // Its file would stand in the lists that tests look at.
        KorvaneVarden_AppDelegate::setSelfTestEnabled(selfTest);
        ApplicationHost::setTerminateHandler([this] {
            ++terminations;
            agent->applicationWillTerminate();
        });
        agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
    }

    virtual QList<QXUtils::EngineCandidate> engines()
    {
        // Definitions of today, so that they never count as out of date.
        engine.writeScript("bin/clamscan", "echo \"ClamAV 1.4.6/27400/$(LC_ALL=C date '+%a %b %e %T %Y')\"\n");
        return {{engine.path(), engine.filePath("freshclam.log")}};
    }

    void TearDown() override
    {
        agent.reset();
        ApplicationHost::setTerminateHandler({});
        SleepWakeNotifier::setSharedNotifier(nullptr);
    }

    void watch(const QVariantList &folders, QVariantMap settings = {}) const
    {
        settings.insert(QStringLiteral("VardenFolderArray"), folders);
        home.writeDomain(companionDomain, settings);
    }
    static QVariantMap folder(const QString &path) { return {{QStringLiteral("pathName"), path}}; }
    qint64 shownImage() const { return agent->throbberStatusItem()->image().cacheKey(); }

    FreshPreferences home;
    LogCapture log;
    AnsweringAlertPresenter alerts;
    ScriptedPrefix engine;
    SleepWakeNotifier sleep;
    int terminations = 0;
    bool selfTest = false;
    std::unique_ptr<KorvaneVarden_AppDelegate> agent;
};
