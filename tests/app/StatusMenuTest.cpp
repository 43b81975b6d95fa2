#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "companion/OnDemandScan.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/UserFolders.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/ListedRows.h"
#include "tests/support/RecordingWorkspace.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTextStream>
#include <QTimer>

#include <functional>

namespace {

class StatusMenuTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        agent->utils()->setUpdateLogPath(home.filePath("freshclam.log"));
        list = agent->infectedList();
    }

    static QAction *item(QMenu *menu, const QString &action)
    {
        for (QAction *entry : menu->actions()) {
            if (entry->data().toString() == action)
                return entry;
        }
        return nullptr;
    }

    // Opens both menus as the user would; answers the operations of the enabled items.
    QStringList enabledOnOpening()
    {
        QStringList enabled;
        for (QMenu *menu : {agent->mainMenu(), agent->actionMenu()}) {
            menu->popup({0, 0});
            for (QAction *entry : menu->actions()) {
                // A hidden action reads as disabled whatever was set on it.
                const bool hidden = !entry->isVisible();
                entry->setVisible(true);
                if (!entry->isSeparator() && entry->isEnabled())
                    enabled << entry->data().toString();
                entry->setVisible(!hidden);
            }
            menu->hide();
        }
        enabled.sort();
        return enabled;
    }

    void addRow(const QString &path, const QString &status = {}, const QString &original = {}, bool selected = true)
    {
        addListedRow(list, path, status, original, selected);
    }

    void setQuarantineFolder() const
    {
        home.writeDomain(companionDomain, {{QStringLiteral("QuarantineFolder"), QStringLiteral("~/Quarantine")}});
    }

    QString scanLog() const { return agent->utils()->pathToScanLog(); }
    QString korvaneScanLog() const { return UserFolders::logs() + QStringLiteral("/korvane-scan.log"); }

    QXTInfectedViewArrayController *list = nullptr;
};

// "KEY=action" per item, "-" per separator.
QStringList items(const char *layout)
{
    QStringList items;
    for (const QString &token : QString::fromLatin1(layout).split(' ', Qt::SkipEmptyParts))
        items << (token == "-" ? token : Localization::text(token.section('=', 0, 0)) + '=' + token.section('=', 1));
    return items;
}

QStringList items(const QMenu *menu)
{
    QStringList items;
    for (const QAction *item : menu->actions())
        items << (item->isSeparator() ? QStringLiteral("-") : item->text() + '=' + item->data().toString());
    return items;
}

TEST_F(StatusMenuTest, BothMenusHoldTheirItemsInOrderAndAreWhereTheUserOpensThem)
{
    EXPECT_EQ(items(agent->actionMenu()),
              items("SHOW_PATH=showInfectedPath: TOOLBAR_REVEAL=revealInFinder: TOOLBAR_QUARANTINE=quarantineFile: "
                    "TOOLBAR_DELETE=deleteFile: - PUT_BACK=putBack: - REMOVE_FROM_LIST=removeSelectedFromInfectedList: "
                    "TOOLBAR_INFECTIONLIST=clearInfectedList: - SELECT_ALL=selectAll: COPY=copy:"));
    EXPECT_EQ(items(agent->mainMenu()),
              items("ABOUT_MENU_ITEM=about: - FOLDERS_BEING_WATCHED=doNothing: "
                    "ADD_REMOVE_MENU_ITEM=addRemoveFolders: - LAUNCH_KORVANE=launchKorvane: "
                    "UPDATE_VIRUS_DEFINITIONS=updateDefs: - START_WATCHING=startWatching: "
                    "STOP_WATCHING=stopWatching: RESTART_WATCHING=restartWatching: - "
                    "SHOW_INFECTED_ITEMS=showInfectionListWindow: ACTION=doNothingForActionMenu: - "
                    "OPEN_SCAN_LOG=openScanLog: OPEN_KORVANE_SCAN_LOG=openKorvaneScanLog: "
                    "OPEN_UPDATE_LOG=openUpdateLog: - ABORT_SCANS_MENU_ITEM=abortScans: QUIT_MENU_ITEM=quit:"));

    EXPECT_EQ(agent->throbberStatusItem()->menu(), agent->mainMenu());
    EXPECT_EQ(item(agent->mainMenu(), "doNothing:")->menu(), agent->foldersBeingWatchedSubmenu());
    EXPECT_EQ(item(agent->mainMenu(), "doNothingForActionMenu:")->menu(), agent->actionMenu());
    // The action menu is the table's context menu too.
    emit agent->infectionListTableView()->customContextMenuRequested({4, 4});
    EXPECT_TRUE(agent->actionMenu()->isVisible());
    agent->actionMenu()->hide();
}

TEST_F(StatusMenuTest, EachItemIsEnabledExactlyInTheSituationsItsRuleNames)
{
    const QStringList ready{"about:", "addRemoveFolders:", "launchKorvane:", "quit:", "startWatching:", "updateDefs:"};
    const char *listed = "+showInfectionListWindow: +clearInfectedList:";
    const char *selected = "+showInfectionListWindow: +clearInfectedList: +showInfectedPath: +revealInFinder: "
                           "+removeSelectedFromInfectedList:";
    const QString trashed = UserFolders::dataHome() + QStringLiteral("/Trash/files/eicar.com");
    const auto writeLogs = [&] {
        for (const QString &log : {scanLog(), korvaneScanLog(), home.filePath("freshclam.log")})
            home.writeFile(QDir(home.path()).relativeFilePath(log), "log\n");
    };
    const auto focusTable = [&] {
        agent->showInfectionListWindow(nullptr);
        ASSERT_TRUE(QTest::qWaitForWindowActive(agent->infectionListWindow()));
        agent->infectionListTableView()->setFocus();
    };

    struct Situation
    {
        const char *name;
        std::function<void()> arrange;
        // Items enabled (+) or disabled (-) compared with the ready agent.
        QStringList changes;
    };
    const QList<Situation> situations{
        {"ready, idle, nothing listed", [] {}, {}},
        {"starting up with everything else on",
         [&] {
             agent->setStartingUp(true);
             agent->setWatching(true);
             agent->utils()->setScanning(true);
             writeLogs();
             setQuarantineFolder();
             addRow("/x/eicar.com");
         },
         {"-about: -addRemoveFolders: -launchKorvane: -quit: -startWatching: -updateDefs:"}},
        {"watching and scanning",
         [&] {
             agent->setWatching(true);
             agent->utils()->setScanning(true);
         },
         {"+doNothing: -updateDefs: -startWatching: +stopWatching: +restartWatching: +abortScans:"}},
        {"updating", [&] { agent->utils()->setUpdating(true); }, {"-updateDefs:"}},
        {"every log written", writeLogs, {"+openScanLog: +openKorvaneScanLog: +openUpdateLog:"}},
        {"rows listed, none selected",
         [&] {
             addRow("/x/a", {}, {}, false);
             addRow("/x/b", {}, {}, false);
         },
         {listed}},
        {"an untouched row selected, with a quarantine folder",
         [&] {
             setQuarantineFolder();
             addRow("/x/eicar.com");
         },
         {selected, "+quarantineFile: +deleteFile:"}},
        {"an untouched row selected, without a quarantine folder",
         [&] { addRow("/x/eicar.com"); },
         {selected, "+deleteFile:"}},
        {"a quarantined row selected",
         [&] {
             setQuarantineFolder();
             addRow(home.filePath("Quarantine/eicar.com"), "Quarantined", "/x/eicar.com");
         },
         {selected, "+deleteFile: +putBack:"}},
        {"a trashed row selected",
         [&] {
             setQuarantineFolder();
             addRow(trashed, "Trashed", "/x/eicar.com");
         },
         {selected, "+putBack:"}},
        {"a trashed and an untouched row selected",
         [&] {
             setQuarantineFolder();
             addRow(trashed, "Trashed", "/x/eicar.com");
             addRow("/x/other");
         },
         {selected, "+quarantineFile: +deleteFile: +putBack:"}},
        {"rows put back, or whose original path is where they are",
         [&] {
             addRow("/x/a", {}, QStringLiteral(""));
             addRow("/x/b", "Quarantined", "/x/b");
         },
         {selected, "+deleteFile:"}},
        // The window stays key once shown, so these come last.
        {"the list window key, its table focused, nothing selected",
         [&] {
             addRow("/x/a", {}, {}, false);
             focusTable();
         },
         {listed, "+doNothingForActionMenu: +selectAll:"}},
        {"the list window key, its table focused, a row selected",
         [&] {
             addRow("/x/a");
             focusTable();
         },
         {selected, "+doNothingForActionMenu: +selectAll: +copy: +deleteFile:"}},
    };

    for (const Situation &situation : situations) {
        SCOPED_TRACE(situation.name);
        agent->setStartingUp(false);
        agent->setWatching(false);
        agent->utils()->setScanning(false);
        agent->utils()->setUpdating(false);
        list->removeAllObjects();
        QDir(UserFolders::logs()).removeRecursively();
        QFile::remove(home.filePath("freshclam.log"));
        home.writeDomain(companionDomain, {});

        situation.arrange();
        QStringList expected = ready;
        for (const QString &change : situation.changes.join(' ').split(' ', Qt::SkipEmptyParts))
            change.startsWith('+') ? void(expected << change.mid(1)) : void(expected.removeAll(change.mid(1)));
        expected.sort();
        EXPECT_EQ(enabledOnOpening(), expected);
    }
}

TEST_F(StatusMenuTest, HoldingShiftAndAltWithTheMenuOpenShowsTheCompanionsScanLogInPlaceOfOurs)
{
    agent->setStartingUp(false);
    home.writeFile(QDir(home.path()).relativeFilePath(korvaneScanLog()), "their log\n");
    QMenu *menu = agent->mainMenu();
    QAction *ours = item(menu, "openScanLog:");
    QAction *theirs = item(menu, "openKorvaneScanLog:");
    const auto shown = [&] {
        EXPECT_NE(ours->isVisible(), theirs->isVisible());
        return theirs->isVisible() ? "theirs" : "ours";
    };
    const auto key = [&](QEvent::Type type, Qt::Key key, Qt::KeyboardModifiers held) {
        QKeyEvent event(type, key, held);
        QApplication::sendEvent(menu, &event);
        return shown();
    };

    menu->popup({0, 0});
    EXPECT_STREQ(shown(), "ours");
    EXPECT_STREQ(key(QEvent::KeyPress, Qt::Key_Shift, Qt::NoModifier), "ours");
    // Each enabled by its own log file only.
    EXPECT_FALSE(ours->isEnabled());
    EXPECT_STREQ(key(QEvent::KeyPress, Qt::Key_Alt, Qt::ShiftModifier), "theirs");
    EXPECT_TRUE(theirs->isEnabled());
    EXPECT_STREQ(key(QEvent::KeyPress, Qt::Key_Down, Qt::ShiftModifier | Qt::AltModifier), "theirs");
    EXPECT_STREQ(key(QEvent::KeyRelease, Qt::Key_Shift, Qt::ShiftModifier | Qt::AltModifier), "ours");
    EXPECT_STREQ(key(QEvent::KeyPress, Qt::Key_Shift, Qt::AltModifier), "theirs");
    EXPECT_STREQ(key(QEvent::KeyRelease, Qt::Key_Alt, Qt::ShiftModifier | Qt::AltModifier), "ours");
    EXPECT_STREQ(key(QEvent::KeyPress, Qt::Key_Control, Qt::ShiftModifier), "ours");
    menu->hide();

    // Keys already held when the menu opens count too.
    QTest::keyPress(agent->infectionListWindow(), Qt::Key_Alt, Qt::ShiftModifier | Qt::AltModifier);
    menu->popup({0, 0});
    EXPECT_STREQ(shown(), "theirs");
    menu->hide();
    QTest::keyRelease(agent->infectionListWindow(), Qt::Key_Shift, Qt::ShiftModifier | Qt::AltModifier);
    menu->popup({0, 0});
    EXPECT_STREQ(shown(), "ours");
    menu->hide();
}

TEST_F(StatusMenuTest, EachLogOpensInTheDesktopsProgramAndAMissingOrUnopenableOneBeeps)
{
    RecordingWorkspace workspace;
    enum Present { File, Folder, Nothing };
    struct Case
    {
        const char *name;
        void (KorvaneVarden_AppDelegate::*open)(QObject *);
        QString path;
        Present present;
        bool opens;
    };
    const QString updateLog = home.filePath("freshclam.log");
    using Agent = KorvaneVarden_AppDelegate;
    const QList<Case> cases{
        {"our scan log", &Agent::openScanLog, scanLog(), File, true},
        {"the companion's scan log", &Agent::openKorvaneScanLog, korvaneScanLog(), File, true},
        {"the update log", &Agent::openUpdateLog, updateLog, File, true},
        {"a missing scan log", &Agent::openScanLog, scanLog(), Nothing, true},
        {"a folder where the update log should be", &Agent::openUpdateLog, updateLog, Folder, true},
        {"a log no program opens", &Agent::openUpdateLog, updateLog, File, false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        QDir(test.path).removeRecursively();
        QFile::remove(test.path);
        if (test.present == File)
            home.writeFile(QDir(home.path()).relativeFilePath(test.path), "log\n");
        else if (test.present == Folder)
            QDir().mkpath(test.path);
        workspace.opens = test.opens;
        workspace.opened.clear();
        alerts.beeps = 0;

        (agent.get()->*test.open)(nullptr);

        EXPECT_EQ(workspace.opened, test.present == File ? QStringList{test.path} : QStringList());
        EXPECT_EQ(alerts.beeps, test.present == File && test.opens ? 0 : 1);
        QFile::remove(test.path);
    }
    alerts.beeps = 0;
    agent->openLogFile(QString());
    EXPECT_EQ(alerts.beeps, 1);
}

class AbortTest : public StatusMenuTest
{
protected:
    void SetUp() override
    {
        StatusMenuTest::SetUp();
        // Programs of this test's own names stand in for the scans, so that
        // no one else's scans stop.
        standIn = QStringLiteral("kvscan%1").arg(QCoreApplication::applicationPid());
        QFile::copy(QStringLiteral("/bin/sleep"), programs.filePath(standIn));
        saved = KorvaneVarden_AppDelegate::scanProgramNames();
        KorvaneVarden_AppDelegate::setScanProgramNames(
            {standIn, standInFor(QStringLiteral("clamdscan")), standInFor(QStringLiteral("clamscan"))});
    }
    void TearDown() override
    {
        KorvaneVarden_AppDelegate::setScanProgramNames(saved);
        StatusMenuTest::TearDown();
    }

    QString standInFor(const QString &program) const
    {
        return program.left(5) + QString::number(QCoreApplication::applicationPid());
    }
    // Scanning, not answering the engine check's version question.
    static bool scanning(const QString &program)
    {
        for (const QString &pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
            QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
            QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
            if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == program.toUtf8()
                && cmdline.open(QIODevice::ReadOnly) && cmdline.readAll().contains("--file-list="))
                return true;
        }
        return false;
    }

    QTemporaryDir programs;
    QString standIn;
    QStringList saved;
};

TEST_F(AbortTest, AbortingAsksFirstAndOnlyTheAlternateAnswerEmptiesTheListsAndStopsTheUsersScans)
{
    Dispatcher *dispatcher = agent->dispatcher();
    dispatcher->dispatchTimer()->stop();
    agent->setStartingUp(false);
    agent->utils()->setScanning(true);

    for (int answer : {int(AlertPresenter::DefaultReturn), int(AlertPresenter::AlternateReturn)}) {
        SCOPED_TRACE(answer);
        dispatcher->setWaitingList({{QStringLiteral("/x/waiting"), 10}});
        dispatcher->setReadyList({QStringLiteral("/x/ready")});
        QProcess scan;
        scan.start(programs.filePath(standIn), {QStringLiteral("60")});
        ASSERT_TRUE(scan.waitForStarted());
        alerts.answers = {answer};
        alerts.alerts.clear();

        QMenu *menu = agent->mainMenu();
        emit menu->aboutToShow();
        item(menu, "abortScans:")->trigger();

        ASSERT_EQ(alerts.alerts.size(), 1);
        // The answer that aborts is not the one Return gives.
        EXPECT_EQ(alerts.alerts.first().alternateButton, Localization::text("YES"));
        if (answer == AlertPresenter::DefaultReturn) {
            EXPECT_TRUE(log.contains(QStringLiteral("do nothing")));
            EXPECT_EQ(dispatcher->waitingList().size(), 1);
            EXPECT_EQ(dispatcher->readyList().size(), 1);
            EXPECT_FALSE(scan.waitForFinished(300));
            scan.kill();
        } else {
            EXPECT_TRUE(dispatcher->waitingList().isEmpty());
            EXPECT_TRUE(dispatcher->readyList().isEmpty());
            ASSERT_TRUE(scan.waitForFinished(5000));
            EXPECT_EQ(scan.exitStatus(), QProcess::CrashExit);
        }
        scan.waitForFinished();
    }
}

TEST_F(AbortTest, AbortEndsTheUsersOnDemandScanOnEitherRoadAndTheScanSaysStopped)
{
    ASSERT_TRUE(EngineFixture::shared().isReady()) << EngineFixture::shared().errorString().toStdString();
    // The test engine, with its scanners run under this test's own names.
    QTemporaryDir prefix;
    const QString engine = EngineFixture::shared().enginePath();
    for (const QFileInfo &entry : QDir(engine).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        if (entry.fileName() != QLatin1String("bin"))
            QFile::link(entry.filePath(), prefix.filePath(entry.fileName()));
    }
    QDir(prefix.path()).mkdir(QStringLiteral("bin"));
    for (const QString &program : {QStringLiteral("clamscan"), QStringLiteral("clamdscan")}) {
        const QString standIn = programs.filePath(standInFor(program));
        QFile::link(QStringLiteral("/usr/bin/") + program, standIn);
        QFile wrapper(engine + QStringLiteral("/bin/") + program);
        ASSERT_TRUE(wrapper.open(QIODevice::ReadOnly));
        QFile renamed(prefix.filePath(QStringLiteral("bin/") + program));
        ASSERT_TRUE(renamed.open(QIODevice::WriteOnly));
        renamed.write(wrapper.readAll().replace("/usr/bin/" + program.toUtf8(), standIn.toUtf8()));
        renamed.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    for (int i = 0; i < 3000; ++i)
        home.writeFile(QStringLiteral("Scan/%1.txt").arg(i).toUtf8(), QByteArray(4096, char('a' + i % 26)));

    for (const bool standalone : {false, true}) {
        SCOPED_TRACE(standalone ? "stand-alone" : "daemon");
        const QString scanner = standInFor(standalone ? QStringLiteral("clamscan") : QStringLiteral("clamdscan"));
        QTimer abort;
        abort.callOnTimeout([&] {
            if (scanning(scanner)) {
                abort.stop();
                agent->reallyAbortScans(nullptr);
            }
        });
        abort.start(5);
        // What Korvane --scan runs.
        QString output;
        QTextStream out(&output);
        const int exitCode =
            OnDemandScan::runFromCommandLine({home.filePath("Scan")}, false, standalone, out,
                                             {{prefix.path(), prefix.filePath("share/clamav/freshclam.log")}});
        EXPECT_FALSE(abort.isActive()) << "the scanner never ran";
        EXPECT_EQ(exitCode, 2) << output.toStdString();
        EXPECT_TRUE(output.contains(QStringLiteral("Result: stopped"))) << output.toStdString();
    }
}

TEST_F(StatusMenuTest, AboutShowsOneBoxWithTheVersionAndDoesNotWaitForIt)
{
    agent->about(nullptr);
    agent->about(nullptr);
    QList<QMessageBox *> boxes;
    for (QWidget *window : QApplication::topLevelWidgets()) {
        if (auto *box = qobject_cast<QMessageBox *>(window); box && box->isVisible())
            boxes << box;
    }
    ASSERT_EQ(boxes.size(), 1);
    EXPECT_FALSE(boxes.first()->isModal());
    EXPECT_TRUE(boxes.first()->text().contains(BundleInfo::shortVersionString()));
    boxes.first()->close();
}

TEST_F(StatusMenuTest, ScanAnimationRunsForwardFromFrameZeroAndAnUpdateBackwardFromFrameEight)
{
    struct Animation
    {
        const char *name;
        std::function<void()> start, tick;
        QList<int> frames;
    };
    const QList<Animation> animations{
        {"scan",
         [&] { agent->scanStarted(); },
         [&] { agent->forwardAnimation(); },
         {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 1}},
        {"update",
         [&] { agent->startUpdateAnimation(); },
         [&] { agent->reverseAnimation(); },
         {8, 7, 6, 5, 4, 3, 2, 1, 0, 8, 7}},
    };
    const QList<QIcon> frames = agent->throbberAnimationFrames();
    ASSERT_EQ(frames.size(), 9);
    for (const Animation &animation : animations) {
        SCOPED_TRACE(animation.name);
        agent->setThrobberAnimationCurrentFrame(4);
        animation.start();
        QTimer *timer = agent->throbberAnimationTimer();
        EXPECT_EQ(agent->throbberAnimationCurrentFrame(), animation.frames.first());
        // The timer itself turns the frames.
        ASSERT_TRUE(
            QTest::qWaitFor([&] { return agent->throbberAnimationCurrentFrame() != animation.frames.first(); }, 5000));

        timer->stop();
        agent->setThrobberAnimationCurrentFrame(animation.frames.first());
        for (int frame : animation.frames) {
            animation.tick();
            EXPECT_EQ(shownImage(), frames.at(frame).cacheKey()) << frame;
        }
        animation.start();
        agent->stopAnimation();
        EXPECT_FALSE(timer->isActive());
        EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());
    }
}

} // namespace
