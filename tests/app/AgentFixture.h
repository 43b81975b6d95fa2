#pragma once

#include "app/KorvaneVarden_AppDelegate.h"
#include "platform/ApplicationHost.h"
#include "platform/SleepWakeNotifier.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <memory>

// A controller in a home of its own, with the application's termination
// taken by the test and the sleep notifier driven by hand. Engine
// candidates point into the temporary home, where no engine is installed.
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
        agent = std::make_unique<KorvaneVarden_AppDelegate>(
            QList<QXUtils::EngineCandidate>{{home.filePath("engine"), home.filePath("engine/freshclam.log")}});
    }

    void TearDown() override
    {
        agent.reset();
        ApplicationHost::setTerminateHandler({});
        SleepWakeNotifier::setSharedNotifier(nullptr);
    }

    FreshPreferences home;
    LogCapture log;
    SleepWakeNotifier sleep;
    int terminations = 0;
    std::unique_ptr<KorvaneVarden_AppDelegate> agent;
};
