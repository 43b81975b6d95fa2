#include "CompanionFixture.h"
#include "companion/ScanPage.h"
#include "companion/ScheduledScanNotice.h"
#include "platform/FreedesktopNotificationCenter.h"
#include "platform/UserFolders.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FakeNotificationService.h"
#include "tests/support/RecordingNotificationCenter.h"
#include "tests/support/ScannerProcesses.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QDBusConnection>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QLabel>
#include <QMimeData>
#include <QApplication>
#include <QProgressBar>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>
#include <QTimer>

namespace {

QList<QXUtils::EngineCandidate> testEngine()
{
    const QString prefix = EngineFixture::shared().enginePath();
    return {{prefix, prefix + QStringLiteral("/share/clamav/freshclam.log")}};
}

} // namespace

class ScanPageTest : public CompanionFixture
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(EngineFixture::shared().isReady()) << EngineFixture::shared().errorString().toStdString();
        window = std::make_unique<PreferencesWindow>((settings = std::make_unique<CompanionSettings>()).get(),
                                                     QStringLiteral("/opt/k/KorvaneVarden"), testEngine());
        page = window->scanPage();
    }

    QString text(const char *label) const { return control<QLabel>(label)->text(); }
    bool waitForEnd() const
    {
        return QTest::qWaitFor([this] { return !page->running(); }, 60000);
    }
    QStringList manyFolders(int count) const
    {
        QStringList folders;
        for (int i = 0; i < count; ++i)
            folders << QFileInfo(home->writeFile(QStringLiteral("Many/%1/f.txt").arg(i).toUtf8(),
                                                 QByteArray(20000, char('a' + i % 26))))
                           .path();
        return folders;
    }

    ScanPage *page = nullptr;
    RecordingNotificationCenter notifications;
};

TEST_F(ScanPageTest, TheBarNeverPassesItsTotalWhileFilesAreAddedAndEndsFull)
{
    for (int i = 0; i < 2000; ++i)
        home->writeFile(QStringLiteral("Grow/%1.txt").arg(i).toUtf8(), "clean");
    home->writeFile("Grow/bad.com", EngineFixture::eicarContents());
    auto *bar = control<QProgressBar>("scanProgress");
    // What the user sees, sampled: a full bar never empties again, and the
    // count shown never goes back.
    int added = 0;
    int shown = 0;
    bool wentBack = false;
    // Through the daemon too the bar moves and names the file while the scan runs, not only at its end.
    bool movedMidway = false;
    bool namedAFile = false;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, [&] {
        if (bar->maximum() > 0) {
            wentBack = wentBack || bar->value() < shown;
            shown = bar->value();
            movedMidway = movedMidway || (page->running() && bar->value() > 0 && bar->value() < bar->maximum());
        }
        namedAFile = namedAFile || control<QLabel>("scanCurrentFile")->toolTip().contains(home->filePath("Grow"));
        // Files appear in the folder while it is being scanned.
        if (added < 200)
            home->writeFile(QStringLiteral("Grow/late%1.txt").arg(added++).toUtf8(), "late");
    });
    look.start(5);
    page->addTargets({home->filePath("Grow")});
    ASSERT_TRUE(page->start());
    ASSERT_TRUE(waitForEnd());

    EXPECT_FALSE(wentBack);
    EXPECT_TRUE(movedMidway);
    EXPECT_TRUE(namedAFile);
    EXPECT_GE(bar->maximum(), 301);
    EXPECT_EQ(bar->value(), bar->maximum());
    EXPECT_EQ(text("scanInfectedCount"), "1 infected");
    EXPECT_TRUE(text("scanSummary").startsWith("1 infected file found.")) << text("scanSummary").toStdString();
    // The window was not in front: the end is told in a notification, and its click brings the window.
    ASSERT_EQ(notifications.delivered.size(), 1);
    EXPECT_EQ(notifications.delivered[0].second, "1 infected file found.");
    emit notifications.activated();
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(control<QTabWidget>("tabs")->currentWidget(), page);

    // An empty folder ends with a full bar, not a busy one that never stops.
    page->clearTargets();
    page->addTargets({makeFolder("Empty")});
    ASSERT_TRUE(page->start());
    ASSERT_TRUE(waitForEnd());
    EXPECT_GT(bar->maximum(), 0);
    EXPECT_EQ(bar->value(), bar->maximum());
    EXPECT_TRUE(text("scanSummary").startsWith("No infected files")) << text("scanSummary").toStdString();
}

TEST_F(ScanPageTest, StopEscapeAndClosingEndTheScanAsStoppedWithNoScannerLeft)
{
    const QStringList folders = manyFolders(400);
    enum class How { StopButton, EscapeThenConfirm, CloseThenConfirm };
    for (const How how : {How::StopButton, How::EscapeThenConfirm, How::CloseThenConfirm}) {
        SCOPED_TRACE(int(how));
        alerts.alerts.clear();
        window->showScan(folders);
        ASSERT_TRUE(page->running());
        ASSERT_TRUE(QTest::qWaitFor([] { return !scannerChildren().isEmpty(); }, 30000));
        if (how == How::StopButton) {
            control<QPushButton>("stopScan")->click();
        } else {
            // The first answer is Escape on the question: the scan and the window stay.
            alerts.answers = {AlertPresenter::DefaultReturn, AlertPresenter::AlternateReturn};
            const auto ask = [&] {
                if (how == How::EscapeThenConfirm)
                    QTest::keyClick(window.get(), Qt::Key_Escape);
                else
                    window->close();
            };
            ask();
            EXPECT_TRUE(window->isVisible());
            EXPECT_TRUE(page->running());
            ask();
            EXPECT_FALSE(window->isVisible());
            EXPECT_EQ(alerts.alerts.size(), 2);
        }
        ASSERT_TRUE(waitForEnd());
        EXPECT_TRUE(scannerChildren().isEmpty());
        EXPECT_TRUE(text("scanSummary").startsWith("The scan was stopped")) << text("scanSummary").toStdString();
    }
    // Whoever stopped the scan needs no notification of it.
    EXPECT_TRUE(notifications.delivered.isEmpty());
    // Closed in the middle of a scan without a question: the page goes, and its scanner with it.
    window->showScan(folders);
    ASSERT_TRUE(QTest::qWaitFor([] { return !scannerChildren().isEmpty(); }, 30000));
    window.reset();
    EXPECT_TRUE(QTest::qWaitFor([] { return scannerChildren().isEmpty(); }, 10000));
}

TEST_F(ScanPageTest, AFoundRowIsQuarantinedTrashedAndPutBackThroughTheListsActions)
{
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("QuarantineFolder"), makeFolder("Quarantine")}});
    const QString first = home->writeFile("Found/a.com", EngineFixture::eicarContents());
    const QString second = home->writeFile("Found/b.com", EngineFixture::eicarContents());
    window->showScan({home->filePath("Found")});
    ASSERT_TRUE(waitForEnd());
    QXTTableView *table = page->resultsView()->tableView();
    QXTInfectedViewArrayController *rows = page->scan()->results();
    ASSERT_EQ(rows->rowCount(), 2);
    const auto act = [&](const QString &path, const char *action) {
        const QList<InfectedItem> items = rows->arrangedObjects();
        for (int row = 0; row < items.size(); ++row) {
            const InfectedItem &item = items[row];
            if (item.value("filePath") == path || item.value("originalFilePath") == path)
                table->selectRow(row);
        }
        auto *item = page->findChild<QAction *>(QLatin1String(action));
        ASSERT_TRUE(item && item->isEnabled()) << action;
        item->trigger();
    };

    act(first, "quarantineFile");
    EXPECT_FALSE(QFile::exists(first));
    EXPECT_TRUE(QFile::exists(home->filePath("Quarantine/a.com")));
    act(first, "putBack");
    EXPECT_TRUE(QFile::exists(first));
    act(second, "deleteFile");
    EXPECT_FALSE(QFile::exists(second));
    EXPECT_TRUE(QFile::exists(home->filePath(".local/share/Trash/files/b.com")));
    EXPECT_EQ(alerts.beeps, 0);
}

TEST_F(ScanPageTest, OnlyLocalFilesAndFoldersCanBeDroppedOnThePage)
{
    const QString folder = makeFolder("Dropped folder");
    const QUrl remote(QStringLiteral("https://example.org/x.exe"));
    const struct
    {
        const char *name;
        QList<QUrl> urls;
        bool accepted;
    } rows[] = {
        {"a local folder", {QUrl::fromLocalFile(folder)}, true},
        {"a web address", {remote}, false},
        {"a folder with a web address", {QUrl::fromLocalFile(folder), remote}, false},
        {"nothing", {}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        page->clearTargets();
        QMimeData data;
        data.setUrls(row.urls);
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(page, &enter);
        EXPECT_EQ(enter.isAccepted(), row.accepted);
        if (enter.isAccepted()) {
            QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
            QApplication::sendEvent(page, &drop);
        }
        EXPECT_EQ(page->targets(), row.accepted ? QStringList{folder} : QStringList{});
    }
}

// The file manager's entries run this; a second one hands its paths, whatever
// their names, to the Korvane that runs.
TEST_F(ScanPageTest, ShowScanOpensThePageScanningAndASecondOneIsTakenOverByTheFirst)
{
    home->writeDomain(
        QStringLiteral("org.korvane.Korvane"),
        {{QStringLiteral("PathToClamav"), EngineFixture::shared().enginePath()}, {QStringLiteral("LogScans"), true}});
    const QString first = home->writeFile("Asked/x.com", EngineFixture::eicarContents());
    const QString second = home->writeFile("Odd \"name\"\nwith, [stuff]/y.com", EngineFixture::eicarContents());
    const QString log = UserFolders::logs() + QStringLiteral("/korvane-scan.log");
    const auto logged = [&](const QString &path) {
        return QTest::qWaitFor([&] { return TemporaryHome::readFile(log).contains(path.toUtf8() + ": "); }, 60000);
    };
    QProcess korvane;
    korvane.start(KORVANE_BINARY_DIR "/bin/Korvane", {"--show-scan", home->filePath("Asked")});
    const bool scanned = logged(first);
    EXPECT_TRUE(scanned);
    const bool takenOver = scanned && runKorvane({"--show-scan", QFileInfo(second).path()}) == 0 && logged(second);
    korvane.terminate();
    korvane.waitForFinished(5000);
    EXPECT_TRUE(takenOver) << korvane.readAllStandardError().toStdString();
    EXPECT_TRUE(QFile::exists(first));
}

// The scheduled scan's notification: a click opens the kept rows, a
// dismissal ends the wait without opening anything.
TEST_F(ScanPageTest, TheScheduledScansNotificationOpensTheKeptRowsOnlyWhenClicked)
{
    auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("notification-server"));
    FakeNotificationService service(bus);
    ASSERT_TRUE(service.isRegistered());
    FreedesktopNotificationCenter center(QDBusConnection::sessionBus());
    UserNotificationCenter::setDefaultCenter(&center);
    const auto restore = qScopeGuard([] { UserNotificationCenter::setDefaultCenter(nullptr); });
    const QString infected = home->writeFile("Sched/x.com", EngineFixture::eicarContents());
    const QString kept = home->filePath(".local/state/korvane/kept.json");
    ASSERT_EQ(ScheduledScanNotice::keep({{{"filePath", infected},
                                          {"fileName", "x.com"},
                                          {"infectionName", "Eicar-Test-Signature"},
                                          {"status", ""}}},
                                        kept),
              QString());
    // Korvane as the click starts it, telling its arguments.
    const QString korvane = home->writeFile("bin/Korvane", "#!/bin/sh\nprintf '%s\\n' \"$@\" >\"$0.args\"\n");
    QFile::setPermissions(korvane, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    for (const bool click : {false, true}) {
        SCOPED_TRACE(click ? "clicked" : "dismissed");
        const qsizetype before = service.notifications().size();
        QTimer answer;
        QObject::connect(&answer, &QTimer::timeout, [&] {
            if (service.notifications().size() > before) {
                answer.stop();
                const uint id = service.notifications().last().id;
                click ? service.invokeAction(id) : service.close(id, 2);
            }
        });
        answer.start(20);
        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(ScheduledScanNotice::notifyAndWait("1 infected file", korvane, 60000, kept), click);
        EXPECT_LT(clock.elapsed(), 30000);
        EXPECT_TRUE(click || !QFile::exists(korvane + ".args"));
    }
    EXPECT_TRUE(QTest::qWaitFor([&] { return !TemporaryHome::readFile(korvane + ".args").isEmpty(); }, 10000));
    EXPECT_EQ(TemporaryHome::readFile(korvane + ".args"), "--show-results\n" + kept.toUtf8() + "\n");

    // What the click opens: the row, with the list's actions on it.
    ASSERT_TRUE(page->showResults(kept));
    ASSERT_EQ(page->scan()->results()->rowCount(), 1);
    page->resultsView()->tableView()->selectRow(0);
    page->findChild<QAction *>(QStringLiteral("deleteFile"))->trigger();
    EXPECT_FALSE(QFile::exists(infected));
}

// As the timer runs it: the rows are kept, and a dismissed notification lets the scan end with its code.
TEST_F(ScanPageTest, TheTimersScanKeepsWhatItFoundAndEndsWhenItsNotificationIsDismissed)
{
    auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("notification-server"));
    FakeNotificationService service(bus);
    ASSERT_TRUE(service.isRegistered());
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("PathToClamav"), EngineFixture::shared().enginePath()}});
    const QString infected = home->writeFile("Timer/x.com", EngineFixture::eicarContents());
    QProcess korvane;
    korvane.start(KORVANE_BINARY_DIR "/bin/Korvane", {"--scan", "--notify", home->filePath("Timer")});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !service.notifications().isEmpty(); }, 60000));
    EXPECT_EQ(service.notifications().last().body, "1 infected file. Click to see it.");
    service.close(service.notifications().last().id, 2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return korvane.state() == QProcess::NotRunning; }, 10000));
    EXPECT_EQ(korvane.exitCode(), 1);
    EXPECT_TRUE(TemporaryHome::readFile(ScheduledScanNotice::resultsPath()).contains(infected.toUtf8()));
}
