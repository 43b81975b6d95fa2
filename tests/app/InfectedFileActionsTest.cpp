#include "AgentFixture.h"

#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "tests/support/FakeFileManager.h"
#include "tests/support/ListedRows.h"
#include "tests/support/MountedTmpfs.h"
#include "ui/InfectedItemsStore.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QDBusConnection>
#include <QDir>
#include <QDirIterator>
#include <QItemSelectionModel>
#include <QRegularExpression>
#include <QTest>
#include <QTime>

#include <functional>
#include <sys/stat.h>

namespace {

class InfectedFileActionsTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        restart(false);
    }

    // A second controller in the same home, as after a quit or a reboot.
    void restart(bool quitFirst = true)
    {
        if (quitFirst) {
            agent.reset();
            agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
        }
        agent->applicationDidFinishLaunching();
        list = agent->infectedList();
    }

    // A listed file whose contents are its own path, so each can be counted.
    QString infected(const QString &path)
    {
        const QString absolute = path.startsWith('/') ? path : home.filePath(path);
        QDir().mkpath(QFileInfo(absolute).path());
        QFile file(absolute);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(absolute.toUtf8()) > 0);
        agent->addToInfectedListTheFile(QFileInfo(absolute).fileName(), absolute, "Korvane.Test.Eicar", "");
        return absolute;
    }

    void select(std::initializer_list<int> rows) const { selectRows(list, rows); }
    void selectAll() const { agent->infectionListTableView()->selectAll(); }
    InfectedItem row(int index) const { return list->arrangedObjects().value(index); }
    QString value(int index, const char *key) const { return row(index).value(key).toString(); }
    QString trash() const { return home.filePath(".local/share/Trash"); }
    QString quarantine(const QString &folder = "Quarantine") const
    {
        QDir().mkpath(home.filePath(folder));
        agent->utils()->setQuarantineLocation(home.filePath(folder));
        return home.filePath(folder);
    }

    // Walks the folders: a move that lost or doubled a file shows here.
    int copiesOf(const QByteArray &contents, const QString &otherRoot = {}) const
    {
        int copies = 0;
        for (const QString &root : {home.path(), otherRoot}) {
            QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
            while (!root.isEmpty() && it.hasNext()) {
                QFile file(it.next());
                copies += file.open(QIODevice::ReadOnly) && file.readAll() == contents;
            }
        }
        return copies;
    }
    bool eachOnce(const QStringList &files) const
    {
        return std::all_of(files.begin(), files.end(), [this](const QString &f) { return copiesOf(f.toUtf8()) == 1; });
    }

    QXTInfectedViewArrayController *list = nullptr;
};

TEST_F(InfectedFileActionsTest, DeleteTrashesTheSelectionAndPutBackReturnsEachFileUnderTheNameItWasFoundBy)
{
    const QStringList files{infected("a/eicar.com"), infected("b/eicar.com"), infected("c/keep.com"),
                            infected(".local/share/Trash/files/old.com")};
    const InfectedItem untouched = row(2);
    select({0, 1, 3});

    agent->deleteFile(nullptr);

    EXPECT_EQ(value(0, "filePath"), trash() + "/files/eicar.com");
    EXPECT_EQ(value(1, "filePath"), trash() + "/files/eicar.2.com");
    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, "status"), Localization::text("TRASHED"));
        EXPECT_EQ(value(i, "originalFilePath"), files[i]);
    }
    EXPECT_EQ(row(2), untouched);
    EXPECT_EQ(value(3, "filePath"), files[3]);
    EXPECT_EQ(value(3, "status"), QString());
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
    EXPECT_TRUE(eachOnce(files));

    select({0, 1, 2});
    agent->putBack(nullptr);

    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, "filePath"), files[i]);
        EXPECT_EQ(value(i, "status"), QString());
        EXPECT_EQ(value(i, "originalFilePath"), QString());
    }
    EXPECT_EQ(list->selectionIndexes(), QList<int>({0, 1, 2}));
    EXPECT_EQ(alerts.beeps, 0);
    // The Trash forgets what was taken out of it.
    EXPECT_TRUE(QDir(trash() + "/info").entryList(QDir::Files).isEmpty());
    EXPECT_TRUE(eachOnce(files));
}

TEST_F(InfectedFileActionsTest, QuarantineStampsTakenNamesLeavesOnlyTheOwnersReadAndAfterARestartPutBackRestoresTheMode)
{
    const QString folder = quarantine();
    home.writeFile("Quarantine/invoice.pdf", "occupant");
    const QStringList files{infected("x/invoice.pdf"), infected("y/invoice.pdf"), infected("z/plain"),
                            infected("w/trashed.com")};
    ::chmod(QFile::encodeName(files[0]), 0750);
    select({3});
    agent->deleteFile(nullptr);
    selectAll();

    agent->quarantineFile(nullptr);

    const QString first = QFileInfo(value(0, "filePath")).fileName();
    const QString second = QFileInfo(value(1, "filePath")).fileName();
    const QRegularExpression stamped("^invoice (\\d\\d\\.\\d\\d\\.\\d\\d)\\.pdf$");
    const QRegularExpressionMatch once = stamped.match(first);
    ASSERT_TRUE(once.hasMatch()) << first.toStdString();
    // Where the stamped name is taken too, the time comes twice; a move a second later needs only one.
    const QString twice = "invoice " + once.captured(1) + ' ' + once.captured(1) + ".pdf";
    EXPECT_TRUE(second == twice || (second != first && stamped.match(second).hasMatch())) << second.toStdString();
    for (int i : {0, 1})
        EXPECT_EQ(QFileInfo(value(i, "filePath")).path(), folder);
    EXPECT_EQ(value(2, "filePath"), folder + "/plain");
    for (int i : {0, 1, 2}) {
        EXPECT_EQ(value(i, "status"), Localization::text("QUARANTINED"));
        EXPECT_EQ(value(i, "originalFilePath"), files[i]);
    }
    EXPECT_EQ(value(3, "status"), Localization::text("TRASHED"));
    EXPECT_EQ(TemporaryHome::modeOf(value(0, "filePath")), 0400);
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
    EXPECT_FALSE(agent->quarantineFileAtIndex(0));
    EXPECT_EQ(copiesOf("occupant"), 1);
    EXPECT_TRUE(eachOnce(files));

    const QList<InfectedItem> before = list->arrangedObjects();
    restart();
    EXPECT_EQ(list->arrangedObjects(), before);
    EXPECT_EQ(agent->throbberWatchingImage().pixmap(16).toImage(),
              NamedImage::imageNamed("watchingWithAlert").pixmap(16).toImage());
    selectAll();
    agent->putBack(nullptr);

    for (int i : {0, 1, 2, 3})
        EXPECT_EQ(value(i, "filePath"), files[i]);
    EXPECT_EQ(TemporaryHome::modeOf(files[0]), 0750);
    EXPECT_EQ(alerts.beeps, 0);
    EXPECT_TRUE(eachOnce(files));

    agent->clearInfectedList(nullptr);
    restart();
    EXPECT_EQ(list->rowCount(), 0);
}

// The folder of the settings, made private when it is missing.
TEST_F(InfectedFileActionsTest, ARowRestoredAfterARestartIsQuarantinedIntoTheFolderOfTheSettings)
{
    home.writeDomain(companionDomain, {{"QuarantineFolder", "~/Vault"}});
    const QString file = infected("a/eicar.com");
    restart();
    select({0});

    agent->quarantineFile(nullptr);

    EXPECT_EQ(value(0, "filePath"), home.filePath("Vault/eicar.com"));
    EXPECT_EQ(value(0, "originalFilePath"), file);
    EXPECT_EQ(TemporaryHome::modeOf(home.filePath("Vault")), 0700);
    EXPECT_EQ(alerts.beeps, 0);
}

TEST_F(InfectedFileActionsTest, ASecondCollisionRepeatsTheStampAndKeepsOnlyTheExtensionOfTheFoundName)
{
    const struct
    {
        QString name, base, extension;
    } cases[] = {{"README", "README", ""}, {".bashrc", ".bashrc", ""}, {"notes.tar.gz", "notes.tar", ".gz"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name.toStdString());
        const QString folder = quarantine("Q" + c.base);
        home.writeFile("Q" + c.base + '/' + c.name, "occupant");
        // Taken once-stamped names for the seconds the move may take.
        QStringList twice;
        for (int second = 0; second < 5; ++second) {
            const QString stamp = QTime::currentTime().addSecs(second).toString("HH.mm.ss");
            home.writeFile("Q" + c.base + '/' + c.base + ' ' + stamp + c.extension, "occupant");
            twice << c.base + ' ' + stamp + ' ' + stamp + c.extension;
        }
        infected("found/" + c.base + "/" + c.name);
        select({list->rowCount() - 1});

        agent->quarantineFile(nullptr);

        const QString moved = value(list->rowCount() - 1, "filePath");
        EXPECT_EQ(QFileInfo(moved).path(), folder);
        EXPECT_TRUE(twice.contains(QFileInfo(moved).fileName())) << moved.toStdString();
    }
}

TEST_F(InfectedFileActionsTest, AMoveThatFailsBeepsAndLeavesTheFileAndItsRowAsTheyWere)
{
    enum Action { Quarantine, Delete, PutBack };
    const QString taken = "File %1 cannot be put back to %2 as something already exists in that location.";
    const QString prevented = "Something prevented %1 from being put back to %2. Please investigate this and put "
                              "the file back manually.";
    const auto vanish = [this](const QString &file, const QString &) {
        QFile::rename(value(0, "filePath"), file + "~");
    };
    const struct
    {
        const char *name;
        Action action;
        bool needsVolume;
        QString message;
        std::function<void(const QString &file, const QString &volume)> spoil;
    } cases[] = {
        {"quarantine without a folder",
         Quarantine,
         false,
         {},
         [this](const QString &, const QString &) { agent->utils()->setQuarantineLocation({}); }},
        {"quarantine into a folder whose parent vanished",
         Quarantine,
         false,
         {},
         [this](const QString &, const QString &) {
             QDir(agent->utils()->quarantineLocation()).removeRecursively();
             agent->utils()->setQuarantineLocation(agent->utils()->quarantineLocation() + "/inner");
         }},
        {"quarantine onto a full file system",
         Quarantine,
         true,
         {},
         [this](const QString &, const QString &volume) {
             agent->utils()->setQuarantineLocation(volume);
             MountedTmpfs::fillFolder(volume);
         }},
        {"quarantine of a file that vanished", Quarantine, false, {}, vanish},
        {"delete of a file that vanished", Delete, false, {}, vanish},
        {"delete on a full disk", Delete, true, {}, {}}, // the volume is filled
        {"put back onto a taken name", PutBack, false, taken,
         [](const QString &file, const QString &) {
             QFile newcomer(file);
             newcomer.open(QIODevice::WriteOnly);
         }},
        {"put back into a folder that vanished", PutBack, false, prevented,
         [](const QString &file, const QString &) { QDir(QFileInfo(file).path()).removeRecursively(); }},
        {"put back of a file that vanished", PutBack, false, prevented, vanish},
        // Last: no move can be made after it.
        {"quarantine that cannot be journalled first",
         Quarantine,
         false,
         {},
         [](const QString &, const QString &) {
             const QString journal = QFileInfo(InfectedItemsStore::defaultPath()).path() + "/infected-items.journal";
             QFile::remove(journal);
             QDir().mkpath(journal);
         }},
    };
    int number = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QString folder = QStringLiteral("case%1").arg(++number);
        std::unique_ptr<MountedTmpfs> volume;
        if (c.needsVolume) {
            volume = std::make_unique<MountedTmpfs>(64 * 1024);
            if (!volume->isMounted()) {
                std::cout << "skipped " << c.name << ": " << volume->reason().toStdString() << '\n';
                continue;
            }
        }
        agent->clearInfectedList(nullptr);
        quarantine(folder + "-Quarantine");
        const bool onVolume = c.action == Delete && volume;
        const QString file = infected((onVolume ? volume->path() : home.filePath(folder)) + "/eicar.com");
        if (c.action == PutBack) {
            select({0});
            agent->quarantineFile(nullptr);
        }
        const InfectedItem before = row(0);
        c.spoil ? c.spoil(file, volume ? volume->path() : QString()) : volume->fill();
        const int beeps = alerts.beeps;
        select({0});

        c.action == Quarantine ? agent->quarantineFile(nullptr)
        : c.action == Delete   ? agent->deleteFile(nullptr)
                               : agent->putBack(nullptr);

        EXPECT_EQ(row(0), before);
        EXPECT_EQ(alerts.beeps, beeps + 1);
        if (!c.message.isEmpty()) {
            EXPECT_TRUE(log.contains("appendToConsole:" + c.message.arg(before.value("filePath").toString(), file)));
        }
        EXPECT_EQ(copiesOf(file.toUtf8(), volume ? volume->path() : QString()), 1);
        if (volume && c.action == Quarantine) { // no partial copy left behind
            EXPECT_EQ(QDir(volume->path()).entryList(QDir::Files | QDir::Hidden), QStringList{"filler"});
        }
    }
}

TEST_F(InfectedFileActionsTest, QuarantineAndPutBackReachAnotherFileSystemWithoutLeavingACopyBehind)
{
    MountedTmpfs volume;
    if (!volume.isMounted())
        GTEST_SKIP() << volume.reason().toStdString();
    agent->utils()->setQuarantineLocation(volume.path());
    const QString file = infected("a/eicar.com");
    ::chmod(QFile::encodeName(file), 0750);
    const auto volumeHolds = [&] {
        return QDir(volume.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    };
    select({0});

    agent->quarantineFile(nullptr);

    EXPECT_EQ(value(0, "filePath"), volume.path() + "/eicar.com");
    EXPECT_EQ(value(0, "status"), Localization::text("QUARANTINED"));
    EXPECT_EQ(volumeHolds(), QStringList{"eicar.com"});
    EXPECT_EQ(TemporaryHome::modeOf(value(0, "filePath")), 0400);
    EXPECT_EQ(copiesOf(file.toUtf8(), volume.path()), 1);

    select({0});
    agent->putBack(nullptr);

    EXPECT_EQ(value(0, "filePath"), file);
    EXPECT_EQ(TemporaryHome::modeOf(file), 0750);
    EXPECT_TRUE(volumeHolds().isEmpty());
    EXPECT_EQ(copiesOf(file.toUtf8(), volume.path()), 1);
    EXPECT_EQ(alerts.beeps, 0);
}

TEST_F(InfectedFileActionsTest, PutBackRefusesAFileThatWasChangedInQuarantineAndSaysWhy)
{
    quarantine();
    const QString file = infected("a/eicar.com");
    select({0});
    agent->quarantineFile(nullptr);
    const InfectedItem quarantined = row(0);
    const QString inQuarantine = value(0, "filePath");
    // Same size, other contents: only the checksum tells.
    QFile changed(inQuarantine);
    ASSERT_TRUE(changed.open(QIODevice::ReadWrite));
    changed.write("X");
    changed.close();
    restart();
    select({0});

    agent->putBack(nullptr);

    EXPECT_EQ(row(0), quarantined);
    EXPECT_TRUE(QFileInfo::exists(inQuarantine));
    EXPECT_FALSE(QFileInfo::exists(file));
    EXPECT_EQ(alerts.beeps, 1);
    EXPECT_TRUE(log.anyContains("was changed in quarantine"));
}

TEST_F(InfectedFileActionsTest, AFileInAMailStoreIsMovedOnlyWhenTheUserSaysYesOncePerFile)
{
    EXPECT_EQ(agent->checkIfLooksLikeMailAndPromptForFile(home.filePath("Downloads/x")), -1);
    const QStringList files{infected(".thunderbird/p/Mail/Inbox"), infected("Maildir/cur/1.eml"),
                            infected("Downloads/x.com")};
    // The default button is "No".
    alerts.answers = {AlertPresenter::DefaultReturn, AlertPresenter::AlternateReturn};
    selectAll();
    agent->deleteFile(nullptr);

    ASSERT_EQ(alerts.alerts.size(), 2);
    const AlertPresenter::Alert &asked = alerts.alerts.first();
    EXPECT_EQ(asked.messageText, Localization::text("ARE_YOU_SURE").replace("%@", "Inbox"));
    EXPECT_EQ(QStringList({asked.defaultButton, asked.alternateButton, asked.otherButton}),
              QStringList({Localization::text("NO"), Localization::text("YES"), QString()}));
    EXPECT_EQ(value(0, "filePath"), files[0]);
    EXPECT_EQ(value(1, "filePath"), trash() + "/files/1.eml");
    EXPECT_EQ(value(2, "filePath"), trash() + "/files/x.com");

    quarantine();
    alerts.answers = {AlertPresenter::DefaultReturn};
    EXPECT_FALSE(agent->quarantineFileAtIndex(0));
    EXPECT_EQ(alerts.alerts.size(), 3);
    EXPECT_EQ(value(0, "filePath"), files[0]);
    EXPECT_TRUE(eachOnce(files));
}

TEST_F(InfectedFileActionsTest, RevealAsksTheFileManagerToShowEachSelectedFileAndChangesNothing)
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "file-manager");
    {
        FakeFileManager fileManager(bus);
        ASSERT_TRUE(fileManager.isRegistered());
        infected("a/one.com");
        infected("b/two.com");
        infected("c/50% off.com");
        select({0, 2});
        const QList<InfectedItem> before = list->arrangedObjects();

        agent->revealInFinder(nullptr);

        ASSERT_TRUE(QTest::qWaitFor([&] { return fileManager.calls().size() == 2; }, 10000));
        EXPECT_EQ(fileManager.calls().at(0).uris, QStringList{"file://" + home.filePath("a/one.com")});
        EXPECT_EQ(fileManager.calls().at(1).uris, QStringList{"file://" + home.filePath("c/50%25%20off.com")});
        EXPECT_EQ(fileManager.calls().at(1).startupId, QString(""));
        EXPECT_EQ(list->arrangedObjects(), before);
        EXPECT_EQ(list->selectionIndexes(), QList<int>({0, 2}));
    }
    QDBusConnection::disconnectFromBus("file-manager");
}

TEST_F(InfectedFileActionsTest, AListFileThatCannotBeReadIsKeptAsideAndTheAgentStartsEmpty)
{
    const QString path = InfectedItemsStore::defaultPath();
    const QByteArray malformed[] = {
        R"({"items": [{"fileName": "a")",
        R"({"items": [{"fileName": "a", "infectionName": "N", "status": "", "filePath": 7}]})",
    };
    const QString aside[] = {path + ".malformed", path + ".malformed-2"};
    for (int i : {0, 1}) {
        home.writeFile(path.mid(home.path().size() + 1), malformed[i]);
        restart();

        EXPECT_EQ(list->rowCount(), 0);
        QFile kept(aside[i]);
        ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
        EXPECT_EQ(kept.readAll(), malformed[i]);
        EXPECT_TRUE(log.anyContains(aside[i]));
    }

    infected("a/new.com");
    restart();
    EXPECT_EQ(list->rowCount(), 1);
}

} // namespace
