#include "Tarnlib/Tarnlib/QXUtils.h"
#include "tests/support/MountedTmpfs.h"
#include "tests/support/QuietUtilsDelegate.h"
#include "tests/support/TemporaryHome.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDirIterator>
#include <QItemSelectionModel>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>

#include <iostream>

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <signal.h>

namespace {

constexpr int fileCount = 200;
// The steps of a move, the time between two moves ("row"), and the time
// between a save of the list and the trim of the journal ("saved"): a kill
// must have landed in each at least once.
const QStringList steps{"journal", "moved", "mode", "row", "saved"};

// Where a kill landed, by what the killed process printed last.
QStringList stepsKilledIn(const QByteArray &out)
{
    QStringList killedIn;
    const QList<QByteArray> lines = out.trimmed().split('\n');
    if (lines.lastIndexOf("saved") > lines.lastIndexOf("dropped"))
        killedIn << "saved";
    for (qsizetype i = lines.size() - 1; i >= 0; --i) {
        if (steps.contains(QString::fromLatin1(lines[i])) && lines[i] != "saved") {
            killedIn << QString::fromLatin1(lines[i]);
            break;
        }
    }
    return killedIn;
}

QByteArray contentsOf(int number)
{
    // Of several sizes, so that a copy to the other file system takes a while.
    QByteArray contents = "file " + QByteArray::number(number) + '\n';
    return contents.repeated(1 + number * 37 % 4000);
}

// Every file under the roots with these contents.
QStringList copiesOf(const QByteArray &contents, const QStringList &roots)
{
    QStringList copies;
    for (const QString &root : roots) {
        QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile file(it.next());
            if (file.size() == contents.size() && file.open(QIODevice::ReadOnly) && file.readAll() == contents)
                copies << file.fileName();
        }
    }
    return copies;
}

} // namespace

// Moves that lose a file or its way back when the agent dies halfway.
TEST(FileActionsKillTest, AfterKillsInEveryStepEachFileIsInPlaceOrMovedWithARowThatPutsItBack)
{
    TemporaryHome home;
    MountedTmpfs volume(64 * 1024 * 1024);
    // On a second file system the quarantine is a checked copy, with more steps to be killed in.
    const QString quarantine = volume.isMounted() ? volume.path() : home.filePath("Quarantine");
    QDir().mkpath(quarantine);
    const QString listFile = home.filePath("list/infected-items.json");
    QJsonArray rows;
    for (int i = 0; i < fileCount; ++i) {
        const QString path = home.writeFile(QString("Downloads/f%1.com").arg(i), contentsOf(i));
        rows.append(QJsonObject{{"fileName", QFileInfo(path).fileName()},
                                {"filePath", path},
                                {"infectionName", "Korvane.Test.Eicar"},
                                {"status", ""}});
    }
    home.writeFile("list/infected-items.json", QJsonDocument(QJsonObject{{"items", rows}}).toJson());

    std::map<QString, int> killsAfter;
    const auto everyStepKilled = [&] {
        return std::all_of(steps.begin(), steps.end(), [&](const QString &s) { return killsAfter[s] > 0; });
    };
    int runs = 0;
    for (; runs < 150 && (runs < 30 || !everyStepKilled()); ++runs) {
        QProcess child;
        child.start(KORVANE_BINARY_DIR "/bin/file_actions_until_killed", {listFile, quarantine});
        ASSERT_TRUE(child.waitForStarted());
        QByteArray out;
        while (!out.contains("started\n") && child.waitForReadyRead(10000))
            out += child.readAllStandardOutput();
        ASSERT_TRUE(out.contains("started\n"))
            << "run " << runs << ": " << out.toStdString() << child.readAllStandardError().toStdString();
        // Half of the kills among the first moves, half around the first save of the list, a second after them.
        QThread::msleep(QRandomGenerator::global()->bounded(300) + (runs % 2) * 900);
        ::kill(pid_t(child.processId()), SIGKILL);
        ASSERT_TRUE(child.waitForFinished(10000));
        out += child.readAllStandardOutput();
        for (const QString &step : stepsKilledIn(out))
            ++killsAfter[step];
    }
    std::string counts;
    for (const QString &s : steps)
        counts += " " + s.toStdString() + ":" + std::to_string(killsAfter[s]);
    std::cout << runs << " kills, after each step:" << counts << std::endl;
    EXPECT_TRUE(everyStepKilled()) << counts;

    // The agent's next start sees where every file went.
    QXTInfectedViewArrayController list;
    QItemSelectionModel selection(&list);
    list.setSelectionModel(&selection);
    QuietUtilsDelegate delegate;
    QXUtils utils(&delegate);
    utils.setQuarantineLocation(quarantine);
    InfectedFileActions actions(&list, &utils, [](const QString &) {});
    auto store = std::make_unique<InfectedItemsStore>(&list, listFile);
    actions.setJournal(store->journal());
    ASSERT_EQ(list.rowCount(), fileCount);
    const QStringList roots{home.path(), volume.isMounted() ? volume.path() : QString()};
    int moved = 0;
    for (int row = 0; row < fileCount; ++row) {
        const InfectedItem item = list.arrangedObjects().at(row);
        const QString path = item.value("filePath").toString();
        const QString original =
            item.value("status").toString().isEmpty() ? path : item.value("originalFilePath").toString();
        const int number = QFileInfo(original).completeBaseName().mid(1).toInt();
        SCOPED_TRACE(original.toStdString());
        EXPECT_EQ(original, home.filePath(QString("Downloads/f%1.com").arg(number)));
        EXPECT_EQ(copiesOf(contentsOf(number), roots), QStringList{path});
        if (path != original) {
            ++moved;
            selection.select(list.index(row, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
        }
    }
    std::cout << moved << " of " << fileCount << " files were moved when the last kill came" << std::endl;

    actions.putBack();
    for (int i = 0; i < fileCount; ++i) {
        const QString path = home.filePath(QString("Downloads/f%1.com").arg(i));
        EXPECT_EQ(copiesOf(contentsOf(i), roots), QStringList{path});
    }
    store.reset();
    EXPECT_FALSE(QFileInfo::exists(home.filePath("list/infected-items.journal")));
}
