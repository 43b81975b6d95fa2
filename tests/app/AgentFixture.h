#pragma once

#include "app/KorvaneVarden_AppDelegate.h"
#include "platform/ApplicationHost.h"
#include "platform/SleepWakeNotifier.h"
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
    void SetUp() override
    {
        SleepWakeNotifier::setSharedNotifier(&sleep);
        ApplicationHost::setTerminateHandler([this] {
            ++terminations;
            agent->applicationWillTerminate();
        });
        engine.writeScript("bin/clamscan", "echo 'ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026'\n");
        agent = std::make_unique<KorvaneVarden_AppDelegate>(
            QList<QXUtils::EngineCandidate>{{engine.path(), engine.filePath("freshclam.log")}});
    }

    void TearDown() override
    {
        agent.reset();
        ApplicationHost::setTerminateHandler({});
        SleepWakeNotifier::setSharedNotifier(nullptr);
    }

    FreshPreferences home;
    LogCapture log;
    AnsweringAlertPresenter alerts;
    ScriptedPrefix engine;
    SleepWakeNotifier sleep;
    int terminations = 0;
    std::unique_ptr<KorvaneVarden_AppDelegate> agent;
};
