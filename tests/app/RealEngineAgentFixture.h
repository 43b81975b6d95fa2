#pragma once

#include "AgentFixture.h"
#include "app/Dispatcher.h"
#include "events/SCEvents.h"
#include "tests/support/EngineFixture.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDir>
#include <QTest>

#include <algorithm>

// The whole agent against the real daemon and real folder events: a
// temporary home whose ~/Watched is watched, files written into it, rows in
// the list.
class RealEngineAgentFixture : public AgentFixture
{
protected:
    // Launches the agent watching ~/Watched and the further folders, and
    // waits until it found the running daemon and watches.
    void launchWatching(const QVariantList &furtherFolders = {}, const QVariantMap &settings = {})
    {
        ASSERT_TRUE(EngineFixture::shared().isReady()) << EngineFixture::shared().errorString().toStdString();
        QDir().mkpath(home.filePath("Watched"));
        watch(QVariantList{folder(QStringLiteral("~/Watched"))} + furtherFolders, settings);
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        ASSERT_TRUE(QTest::qWaitFor([&] { return agent->readyToScan() && agent->watching(); }, 20000));
        agent->events()->flushEventStreamSync();
    }

    QList<QXUtils::EngineCandidate> engines() override
    {
        const QString prefix = privateEngine.isEmpty() ? EngineFixture::shared().enginePath() : privateEngine;
        return {{prefix, prefix + QStringLiteral("/share/clamav/freshclam.log")}};
    }

    QString write(const QString &name, const QByteArray &contents = EngineFixture::eicarContents())
    {
        return home.writeFile("Watched/" + name.toUtf8(), contents);
    }

    QStringList listedPaths() const
    {
        QStringList paths;
        for (const InfectedItem &item : agent->infectedList()->arrangedObjects())
            paths << item.value(QStringLiteral("filePath")).toString();
        return paths;
    }

    bool waitUntilListed(const QStringList &paths)
    {
        return QTest::qWaitFor(
            [&] {
                const QStringList listed = listedPaths();
                return std::all_of(paths.begin(), paths.end(),
                                   [&](const QString &path) { return listed.contains(path); });
            },
            30000);
    }

    bool waitUntilListed(const QString &path) { return waitUntilListed(QStringList{path}); }

    // An engine of the test's own in place of the shared one.
    QString privateEngine;

    // Nothing waiting, ready or being scanned.
    bool waitUntilIdle()
    {
        return QTest::qWaitFor(
            [&] {
                return agent->dispatcher()->waitingList().isEmpty() && agent->dispatcher()->readyList().isEmpty()
                       && !agent->utils()->scanning();
            },
            30000);
    }
};
