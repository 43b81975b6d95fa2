#include "CompanionFixture.h"
#include "companion/CompanionApplication.h"
#include "companion/LoginItem.h"
#include "companion/NautilusScript.h"
#include "platform/DesktopEntryWorkspace.h"
#include "tests/support/BusTraffic.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QTest>

namespace {

using CompanionApplicationTest = CompanionFixture;

TEST_F(CompanionApplicationTest, TheAgentsOpenPrefsNotificationShowsTheWindowWhileTheCompanionOwnsItsName)
{
    CompanionApplication companion;
    companion.observeAgent();
    ASSERT_TRUE(companion.claimBusName());
    DesktopEntryWorkspace workspace;
    EXPECT_TRUE(workspace.isApplicationActive(BundleInfo::companionIdentifier()));
    EXPECT_FALSE(companion.preferencesWindow()->isVisible());

    // Posted from a process of its own, as the agent does.
    QProcess agent;
    agent.start(KORVANE_BINARY_DIR "/bin/post_notification", {"KorvaneShouldOpenPrefs", "KorvaneVarden"});
    ASSERT_TRUE(agent.waitForFinished(10000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return companion.preferencesWindow()->isVisible(); }, 5000));

    // A second companion in the same session does not get the name.
    QDBusConnection other = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "second companion");
    EXPECT_FALSE(other.registerService(BundleInfo::companionIdentifier()));
    QDBusConnection::disconnectFromBus("second companion");
    QDBusConnection::sessionBus().unregisterService(BundleInfo::companionIdentifier());
}

// A second start asks the running companion for its window the moment it
// finds the name taken: by then the first must be listening.
TEST_F(CompanionApplicationTest, TheCompanionListensForOpenPrefsBeforeItsNameAppears)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
    // The agent seems to run, so the companion starts none.
    QDBusConnection agent = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "agent");
    ASSERT_TRUE(agent.registerService(QStringLiteral(KORVANE_AGENT_ID)));
    BusTraffic traffic;
    ASSERT_TRUE(traffic.start());

    QProcess korvane;
    korvane.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    korvane.start(KORVANE_BINARY_DIR "/bin/Korvane", {});
    const QString name = BundleInfo::companionIdentifier();
    EXPECT_TRUE(QTest::qWaitFor([&] { return bus.interface()->isServiceRegistered(name).value(); }, 15000));
    korvane.kill();
    korvane.waitForFinished(5000);
    QDBusConnection::disconnectFromBus("agent");

    const qsizetype claimed = traffic.positionOfCall(QStringLiteral("RequestName"), name + '"');
    const qsizetype listening =
        traffic.positionOfCall(QStringLiteral("AddMatch"), QStringLiteral("member='KorvaneShouldOpenPrefs'"));
    ASSERT_GE(claimed, 0) << traffic.text().toStdString();
    ASSERT_GE(listening, 0) << traffic.text().toStdString();
    EXPECT_LT(listening, claimed);
}

TEST_F(CompanionApplicationTest, TheLoginEntryAppearsAndDisappearsWithTheCheckboxAndNamesTheAgent)
{
    // A path that needs quoting in a desktop entry.
    const QString agent = home->filePath("my apps/100% \"Korvane\"/KorvaneVarden");
    PreferencesWindow *w = openWindow(agent);
    auto *atLogin = control<QCheckBox>("startAtLogin");
    EXPECT_FALSE(atLogin->isChecked());

    atLogin->setChecked(true);
    ASSERT_TRUE(w->save());
    ASSERT_TRUE(QFile::exists(home->configHome() + "/autostart/org.korvane.KorvaneVarden.desktop"));
    EXPECT_EQ(DesktopEntryWorkspace::commandOfDesktopEntry(LoginItem::path()), QStringList{agent});
    w->load();
    EXPECT_TRUE(atLogin->isChecked());

    atLogin->setChecked(false);
    ASSERT_TRUE(w->save());
    EXPECT_FALSE(QFile::exists(LoginItem::path()));
    EXPECT_TRUE(alerts.alerts.isEmpty());
}

TEST_F(CompanionApplicationTest, TheFilesScriptIsLinkedFromItsPrefixWithTheCheckboxAndAUsersOwnScriptIsSpared)
{
    const QString prefix = home->filePath("opt/korvane 1");
    const QString script = home->writeFile("opt/korvane 1/share/korvane/nautilus/Scan with Korvane", "#!/bin/sh\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    PreferencesWindow *w = openWindow(prefix + "/bin/KorvaneVarden");
    auto *offered = control<QCheckBox>("nautilusScript");

    offered->setChecked(true);
    ASSERT_TRUE(w->save());
    EXPECT_EQ(QFileInfo(home->path() + "/.local/share/nautilus/scripts/Scan with Korvane").symLinkTarget(), script);
    offered->setChecked(false);
    ASSERT_TRUE(w->save());
    EXPECT_FALSE(QFileInfo::exists(NautilusScript::path()));
    EXPECT_TRUE(alerts.alerts.isEmpty());

    // A script of the user's own under that name is neither replaced nor removed.
    home->writeFile(".local/share/nautilus/scripts/Scan with Korvane", "mine");
    offered->setChecked(true);
    EXPECT_FALSE(w->save());
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_TRUE(alerts.alerts[0].informativeText.contains("a file of your own")) << qPrintable(alerts.alerts[0].informativeText);
    EXPECT_EQ(TemporaryHome::readFile(NautilusScript::path()), "mine");
    w->load();
    EXPECT_FALSE(offered->isChecked());
    EXPECT_TRUE(NautilusScript::setEnabled(false, prefix + "/bin/Korvane"));
    EXPECT_EQ(TemporaryHome::readFile(NautilusScript::path()), "mine");
}

// The agent quits when it has nothing to watch; the folder the user then
// adds is guarded only if a save starts it again.
TEST_F(CompanionApplicationTest, ASaveStartsTheAgentWhenNoneOwnsItsName)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
    const QString folder = makeFolder("scans");
    // Stand-ins for the agent that leave a mark when started.
    const QString running = home->writeFile("running/KorvaneVarden", "#!/bin/sh\ntouch \"$0.started\"\n");
    const QString quit = home->writeFile("quit/KorvaneVarden", "#!/bin/sh\ntouch \"$0.started\"\n");
    for (const QString &program : {running, quit})
        QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    QDBusConnection agent = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "agent");
    ASSERT_TRUE(agent.registerService(QStringLiteral(KORVANE_AGENT_ID)));
    PreferencesWindow *w = openWindow(running);
    w->setFolderChooser([&](QWidget *, const QString &, const QString &) { return folder; });
    w->findChild<QPushButton *>("addFolder")->click();
    ASSERT_TRUE(w->save());
    agent.unregisterService(QStringLiteral(KORVANE_AGENT_ID));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !CompanionApplication::isAgentRunning(); }, 5000));

    window.reset();
    settings.reset();
    w = openWindow(quit);
    ASSERT_TRUE(w->save());
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(quit + ".started"); }, 10000));
    EXPECT_FALSE(QFile::exists(running + ".started")) << "a running agent restarts by itself";
    QDBusConnection::disconnectFromBus("agent");
}

TEST_F(CompanionApplicationTest, UpdateUrlShowsTheVersionsAndThePackageManagersWay)
{
    CompanionApplication companion;
    EXPECT_FALSE(companion.openUrl(QUrl("https://korvane.org/update")));
    EXPECT_EQ(companion.updateNotice(), nullptr);
    ASSERT_TRUE(companion.openUrl(QUrl("Korvane://update")));
    ASSERT_NE(companion.updateNotice(), nullptr);
    const QString text = companion.updateNotice()->text();
    EXPECT_TRUE(text.contains(BundleInfo::shortVersionString()));
    EXPECT_TRUE(text.contains("apt install --only-upgrade korvane"));
    EXPECT_TRUE(CompanionApplication::updateInstructions("0.1.0", "0.2.0").contains("offers version 0.2.0"));
}

// The command line as scripts use it, on the built program.
TEST_F(CompanionApplicationTest, TheCommandLineAddsListsAndRemovesFoldersAndSaysWhatIsWrong)
{
    const QString scans = makeFolder("scans");
    QString output;
    EXPECT_EQ(runKorvane({"--first-run"}, &output), 0);
    EXPECT_TRUE(output.contains(CompanionSettings::domainPath())) << output.toStdString();
    EXPECT_EQ(runKorvane({"--add-folder", scans, "--list-folders"}, &output), 0);
    EXPECT_EQ(output.split('\n', Qt::SkipEmptyParts).filter("~"), (QStringList{"~/Downloads", "~/scans"}));
    EXPECT_EQ(runKorvane({"--add-folder", home->filePath("nowhere")}, &output), 1);
    EXPECT_TRUE(output.contains("nowhere is not a folder"));
    EXPECT_EQ(runKorvane({"--remove-folder", "~/Downloads", "--list-folders"}, &output), 0);
    EXPECT_EQ(output.split('\n', Qt::SkipEmptyParts).filter("~"), QStringList{"~/scans"});
    EXPECT_EQ(runKorvane({"--bogus"}), 1);
    // No agent in the session is no protection, whatever else is known.
    EXPECT_EQ(runKorvane({"--status"}, &output), 1);
    EXPECT_TRUE(output.startsWith("off\n")) << output.toStdString();
}

} // namespace
