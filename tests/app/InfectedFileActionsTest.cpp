#include "AgentFixture.h"

#include "platform/Localization.h"
#include "tests/support/FakeFileManager.h"
#include "tests/support/MountedTmpfs.h"
#include "platform/NamedImage.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QDBusConnection>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QItemSelectionModel>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <iostream>

#include <functional>
#include <sys/stat.h>

namespace {

int modeOf(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

class InfectedFileActionsTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        list = agent->infectedList();
    }

    // A file with contents of its own, listed as infected; answers its path.
    QString infected(const QString &relative, const QByteArray &contents = {})
    {
        const QString path = relative.startsWith('/') ? relative : home.filePath(relative);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents.isEmpty() ? path.toUtf8() : contents);
        file.close();
        agent->addToInfectedListTheFile(QFileInfo(path).fileName(), path, "Korvane.Test.Eicar", "");
        return path;
    }

    void select(std::initializer_list<int> rows) const
    {
        for (int row : rows)
            agent->infectionListTableView()->selectionModel()->select(
                list->index(row, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
    void selectAll() const { agent->infectionListTableView()->selectAll(); }

    InfectedItem row(int index) const { return list->arrangedObjects().value(index); }
    QString value(int index, const char *key) const { return row(index).value(key).toString(); }

    void useQuarantine(const QString &folder) const { agent->utils()->setQuarantineLocation(folder); }

    // How often each file's contents appear under the roots: a move that
    // lost or duplicated a file shows here.
    int copiesOf(const QByteArray &contents, QStringList roots = {}) const
    {
        roots << home.path();
        int copies = 0;
        for (const QString &root : roots) {
            QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
            while (it.hasNext()) {
                QFile file(it.next());
                if (file.open(QIODevice::ReadOnly) && file.readAll() == contents)
                    ++copies;
            }
        }
        return copies;
    }
    bool eachOnce(const QStringList &paths, const QStringList &roots = {}) const
    {
        for (const QString &path : paths) {
            if (copiesOf(path.toUtf8(), roots) != 1) {
                ADD_FAILURE() << path.toStdString() << " exists " << copiesOf(path.toUtf8(), roots) << " times";
                return false;
            }
        }
        return true;
    }

    QString trash() const { return home.filePath(".local/share/Trash"); }

    QXTInfectedViewArrayController *list = nullptr;
};

TEST_F(InfectedFileActionsTest, DeleteTrashesTheSelectionAndPutBackReturnsEachFileUnderTheNameItWasFoundBy)
{
    const QStringList files{infected("a/eicar.com"), infected("b/eicar.com"), infected("c/keep.com")};
    const QString alreadyTrashed = infected(".local/share/Trash/files/old.com");
    select({0, 1, 3});

    agent->deleteFile(nullptr);

    EXPECT_EQ(value(0, "filePath"), trash() + "/files/eicar.com");
    EXPECT_EQ(value(1, "filePath"), trash() + "/files/eicar.2.com");
    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, "status"), Localization::text("TRASHED"));
        EXPECT_EQ(value(i, "originalFilePath"), files[i]);
    }
    EXPECT_EQ(row(2),
              (InfectedItem{{"fileName", "keep.com"},
                            {"infectionName", "Korvane.Test.Eicar"},
                            {"filePath", files[2]},
                            {"status", ""}}));
    EXPECT_EQ(value(3, "filePath"), alreadyTrashed);
    EXPECT_EQ(value(3, "status"), QString());
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
    EXPECT_EQ(alerts.beeps, 0);
    EXPECT_TRUE(eachOnce(files + QStringList{alreadyTrashed}));

    select({0, 1, 2});
    agent->putBack(nullptr);

    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, "filePath"), files[i]);
        EXPECT_EQ(value(i, "status"), QString());
        EXPECT_EQ(value(i, "originalFilePath"), QString());
    }
    EXPECT_EQ(value(2, "filePath"), files[2]);
    EXPECT_EQ(list->selectionIndexes(), QList<int>({0, 1, 2}));
    EXPECT_EQ(alerts.beeps, 0);
    // The Trash forgets what was taken out of it.
    EXPECT_TRUE(QDir(trash() + "/info").entryList(QDir::Files).isEmpty());
    EXPECT_TRUE(eachOnce(files + QStringList{alreadyTrashed}));
}

TEST_F(InfectedFileActionsTest, QuarantineStampsTakenNamesStripsExecuteBitsAndPutBackRestoresTheMode)
{
    const QString quarantine = home.filePath("Quarantine");
    useQuarantine(quarantine);
    home.writeFile("Quarantine/invoice.pdf", "occupant");
    const QStringList files{infected("x/invoice.pdf"), infected("y/invoice.pdf"), infected("z/plain"),
                            infected("w/trashed.com")};
    ::chmod(QFile::encodeName(files[0]), 0750);
    select({3});
    agent->deleteFile(nullptr);
    selectAll();

    agent->quarantineFile(nullptr);

    const QRegularExpression once("^invoice (\\d\\d\\.\\d\\d\\.\\d\\d)\\.pdf$");
    const QRegularExpressionMatch first = once.match(QFileInfo(value(0, "filePath")).fileName());
    ASSERT_TRUE(first.hasMatch()) << value(0, "filePath").toStdString();
    EXPECT_EQ(value(1, "filePath"), quarantine + "/invoice " + first.captured(1) + ' ' + first.captured(1) + ".pdf");
    EXPECT_EQ(value(2, "filePath"), quarantine + "/plain");
    for (int i : {0, 1, 2}) {
        EXPECT_EQ(value(i, "status"), Localization::text("QUARANTINED"));
        EXPECT_EQ(value(i, "originalFilePath"), files[i]);
    }
    EXPECT_EQ(value(3, "status"), Localization::text("TRASHED"));
    EXPECT_EQ(modeOf(value(0, "filePath")), 0640);
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
    EXPECT_FALSE(agent->quarantineFileAtIndex(0));
    EXPECT_EQ(copiesOf("occupant"), 1);
    EXPECT_TRUE(eachOnce(files));

    selectAll();
    agent->putBack(nullptr);

    for (int i : {0, 1, 2, 3}) {
        EXPECT_EQ(value(i, "filePath"), files[i]);
        EXPECT_EQ(value(i, "status"), QString());
    }
    EXPECT_EQ(modeOf(files[0]), 0750);
    EXPECT_EQ(alerts.beeps, 0);
    EXPECT_TRUE(eachOnce(files));
}

TEST_F(InfectedFileActionsTest, AMoveThatFailsBeepsAndLeavesTheFileAndItsRowAsTheyWere)
{
    const QString takenMessage = "appendToConsole:File %1 cannot be put back to %2 as something already exists in "
                                 "that location.";
    const QString preventedMessage = "appendToConsole:Something prevented %1 from being put back to %2. Please "
                                     "investigate this and put the file back manually.";
    struct Case
    {
        const char *name;
        // Lists the file and spoils the move; answers the console line expected, if any.
        std::function<QString(const QString &file, MountedTmpfs &volume)> prepare;
        std::function<void()> act;
        bool needsVolume = false;
    };
    const auto quarantine = [this] { agent->quarantineFile(nullptr); };
    const auto remove = [this] { agent->deleteFile(nullptr); };
    const auto putBack = [this] { agent->putBack(nullptr); };
    // Quarantined first, so that put back has a row to work on.
    const auto quarantined = [this] {
        useQuarantine(home.filePath("Quarantine"));
        QDir().mkpath(home.filePath("Quarantine"));
        select({0});
        agent->quarantineFile(nullptr);
        return value(0, "filePath");
    };
    const Case cases[] = {
        {"quarantine without a folder", [](const QString &, MountedTmpfs &) { return QString(); }, quarantine},
        {"quarantine into a folder that vanished",
         [this](const QString &, MountedTmpfs &) {
             useQuarantine(home.filePath("Removed"));
             return QString();
         },
         quarantine},
        {"quarantine of a file that vanished",
         [this](const QString &file, MountedTmpfs &) {
             useQuarantine(home.filePath("Quarantine"));
             QDir().mkpath(home.filePath("Quarantine"));
             QFile::rename(file, file + " moved");
             return QString();
         },
         quarantine},
        {"quarantine onto another file system",
         [this](const QString &, MountedTmpfs &volume) {
             useQuarantine(volume.path());
             return QString();
         },
         quarantine, true},
        {"delete of a file that vanished",
         [this](const QString &file, MountedTmpfs &) {
             QFile::rename(file, file + " moved");
             return QString();
         },
         remove},
        {"delete on a full disk",
         [](const QString &, MountedTmpfs &volume) {
             QFile filler(volume.path() + "/filler");
             if (filler.open(QIODevice::WriteOnly))
                 while (filler.write(QByteArray(4096, 'f')) > 0 && filler.flush()) { }
             return QString();
         },
         remove, true},
        {"put back onto a taken name",
         [&](const QString &file, MountedTmpfs &) {
             const QString moved = quarantined();
             QFile taken(file);
             taken.open(QIODevice::WriteOnly);
             taken.write("newcomer");
             return takenMessage.arg(moved, file);
         },
         putBack},
        {"put back into a folder that vanished",
         [&](const QString &file, MountedTmpfs &) {
             const QString moved = quarantined();
             QDir(QFileInfo(file).path()).removeRecursively();
             return preventedMessage.arg(moved, file);
         },
         putBack},
        {"put back of a file that vanished",
         [&](const QString &file, MountedTmpfs &) {
             const QString moved = quarantined();
             QFile::rename(moved, file + " moved");
             return preventedMessage.arg(moved, file);
         },
         putBack},
    };
    int number = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const QString folder = QStringLiteral("case%1").arg(++number);
        MountedTmpfs volume(64 * 1024);
        if (c.needsVolume && !volume.isMounted()) {
            std::cout << "skipped " << c.name << ": " << volume.reason().toStdString() << '\n';
            continue;
        }
        agent->clearInfectedList(nullptr);
        useQuarantine({});
        QDir(home.filePath("Quarantine")).removeRecursively();
        const QString file = infected((c.needsVolume && QString(c.name).contains("full") ? volume.path() : home.path())
                                      + '/' + folder + "/eicar.com");
        const QString message = c.prepare(file, volume);
        const InfectedItem before = row(0);
        const int beeps = alerts.beeps;
        select({0});

        c.act();

        EXPECT_EQ(row(0), before);
        EXPECT_EQ(alerts.beeps, beeps + 1);
        if (!message.isEmpty()) {
            EXPECT_TRUE(log.contains(message)) << message.toStdString();
        }
        EXPECT_EQ(copiesOf(file.toUtf8(), {volume.path()}), 1);
    }
}

TEST_F(InfectedFileActionsTest, AFileInAMailStoreIsMovedOnlyWhenTheUserSaysYesOncePerFile)
{
    EXPECT_EQ(agent->checkIfLooksLikeMailAndPromptForFile(home.filePath("Downloads/x")), -1);
    EXPECT_TRUE(alerts.alerts.isEmpty());

    const QStringList files{infected(".thunderbird/p/Mail/Inbox"), infected("Maildir/cur/1.eml"),
                            infected("Downloads/x.com")};
    // The default button is "No".
    alerts.answers = {AlertPresenter::DefaultReturn, AlertPresenter::AlternateReturn};
    selectAll();
    agent->deleteFile(nullptr);

    ASSERT_EQ(alerts.alerts.size(), 2);
    const AlertPresenter::Alert &asked = alerts.alerts.first();
    EXPECT_EQ(asked.messageText, Localization::text("ARE_YOU_SURE").replace("%@", "Inbox"));
    EXPECT_FALSE(asked.messageText.contains("%@"));
    EXPECT_EQ(asked.defaultButton, Localization::text("NO"));
    EXPECT_EQ(asked.alternateButton, Localization::text("YES"));
    EXPECT_TRUE(asked.otherButton.isEmpty());
    EXPECT_EQ(value(0, "filePath"), files[0]);
    EXPECT_EQ(value(1, "filePath"), trash() + "/files/1.eml");
    EXPECT_EQ(value(2, "filePath"), trash() + "/files/x.com");

    // Quarantine asks again, and a declined file is left alone.
    useQuarantine(home.filePath("Downloads"));
    alerts.answers = {AlertPresenter::DefaultReturn};
    EXPECT_FALSE(agent->quarantineFileAtIndex(0));
    EXPECT_EQ(alerts.alerts.size(), 3);
    EXPECT_EQ(value(0, "filePath"), files[0]);
    EXPECT_TRUE(eachOnce(files));
}

TEST_F(InfectedFileActionsTest, RevealShowsEachSelectedFileAndChangesNothing)
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "file-manager");
    {
        FakeFileManager fileManager(bus);
        ASSERT_TRUE(fileManager.isRegistered());
        const QStringList files{infected("a/one.com"), infected("b/two.com"), infected("c/three.com")};
        select({0, 2});
        const QList<InfectedItem> before = list->arrangedObjects();

        agent->revealInFinder(nullptr);

        ASSERT_TRUE(QTest::qWaitFor([&] { return fileManager.calls().size() == 2; }, 10000));
        EXPECT_EQ(fileManager.calls().at(0).uris, QStringList{QUrl::fromLocalFile(files[0]).toString()});
        EXPECT_EQ(fileManager.calls().at(1).uris, QStringList{QUrl::fromLocalFile(files[2]).toString()});
        EXPECT_EQ(list->arrangedObjects(), before);
        EXPECT_EQ(list->selectionIndexes(), QList<int>({0, 2}));
    }
    QDBusConnection::disconnectFromBus("file-manager");
}

TEST_F(InfectedFileActionsTest, TheListSurvivesARestartAndFilesCanBePutBackThen)
{
    useQuarantine(home.filePath("Quarantine"));
    QDir().mkpath(home.filePath("Quarantine"));
    const QStringList files{infected("a/run.sh"), infected("b/doc.pdf"), infected("c/left.com")};
    ::chmod(QFile::encodeName(files[0]), 0755);
    select({0});
    agent->quarantineFile(nullptr);
    select({1});
    agent->deleteFile(nullptr);
    const QList<InfectedItem> before = list->arrangedObjects();

    agent.reset();
    agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
    agent->applicationDidFinishLaunching();
    list = agent->infectedList();

    EXPECT_EQ(list->arrangedObjects(), before);
    EXPECT_EQ(agent->throbberWatchingImage().pixmap(16).toImage(),
              NamedImage::imageNamed("watchingWithAlert").pixmap(16).toImage());
    selectAll();
    agent->putBack(nullptr);
    for (int i : {0, 1, 2})
        EXPECT_EQ(value(i, "filePath"), files[i]);
    EXPECT_EQ(modeOf(files[0]), 0755);
    EXPECT_TRUE(eachOnce(files));

    // Clearing is remembered as well.
    agent->clearInfectedList(nullptr);
    agent.reset();
    agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
    EXPECT_EQ(agent->infectionListWindow()->dataSource()->rowCount(), 0);
}

TEST_F(InfectedFileActionsTest, AListFileThatCannotBeReadIsKeptAsideAndTheAgentStartsEmpty)
{
    const QString path = InfectedItemsStore::defaultPath();
    const QByteArray malformed[] = {
        "{\"items\": [{\"fileName\": \"a\"",
        "[]",
        "{\"items\": [{\"fileName\": \"a\", \"infectionName\": \"N\", \"status\": \"\", \"filePath\": 7}]}",
    };
    QStringList kept;
    for (const QByteArray &contents : malformed) {
        SCOPED_TRACE(contents.toStdString());
        home.writeFile(path.mid(home.path().size() + 1), contents);
        agent.reset();
        agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
        agent->applicationDidFinishLaunching();

        EXPECT_EQ(agent->infectedList()->rowCount(), 0);
        const QStringList aside = QDir(QFileInfo(path).path()).entryList({"infected-items.json.malformed*"});
        ASSERT_EQ(aside.size(), kept.size() + 1);
        const QString newest
            = *std::find_if(aside.begin(), aside.end(), [&](const QString &n) { return !kept.contains(n); });
        kept << newest;
        QFile keptFile(QFileInfo(path).path() + '/' + newest);
        ASSERT_TRUE(keptFile.open(QIODevice::ReadOnly));
        EXPECT_EQ(keptFile.readAll(), contents);
        EXPECT_TRUE(log.anyContains(QFileInfo(path).path() + '/' + newest));
    }

    infected("a/new.com");
    agent.reset();
    agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
    EXPECT_EQ(agent->infectionListWindow()->dataSource()->rowCount(), 1);
}

} // namespace
