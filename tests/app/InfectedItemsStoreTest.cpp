#include "tests/support/MountedTmpfs.h"
#include "tests/support/RecordingNotificationCenter.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

#include <memory>

namespace {

InfectedItem itemNumber(int number)
{
    const QString path = QStringLiteral("/home/u/Downloads/file%1.com").arg(number);
    return {{"fileName", QStringLiteral("file%1.com").arg(number)},
            {"infectionName", "Korvane.Test.Eicar"},
            {"status", ""},
            {"filePath", path}};
}

// What a fresh start would find in the file.
int rowsInFile(const QString &path)
{
    QXTInfectedViewArrayController list;
    InfectedItemsStore reader(&list, path);
    return list.rowCount();
}

TEST(InfectedItemsStoreTest, ABurstOfRowsKeepsTheWindowResponsiveAndEveryRowReachesTheFile)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("infected-items.json");
    for (bool quitAtOnce : {false, true}) {
        SCOPED_TRACE(quitAtOnce ? "quit right after the burst" : "running on");
        QFile::remove(path);
        QXTInfectedViewArrayController list;
        auto store = std::make_unique<InfectedItemsStore>(&list, path);
        QElapsedTimer burst;
        burst.start();
        for (int number = 0; number < 2000; ++number)
            list.addObject(itemNumber(number));

        EXPECT_LT(burst.elapsed(), 1500);
        if (quitAtOnce)
            store.reset();
        EXPECT_TRUE(QTest::qWaitFor([&] { return rowsInFile(path) == 2000; }, 5000));
    }
}

TEST(InfectedItemsStoreTest, AListFileThatCannotBeWrittenIsTriedAgainAndTheUserIsToldOnce)
{
    MountedTmpfs volume(64 * 1024);
    if (!volume.isMounted())
        GTEST_SKIP() << volume.reason().toStdString();
    RecordingNotificationCenter notifications;
    const QString path = volume.path() + "/infected-items.json";
    QXTInfectedViewArrayController list;
    InfectedItemsStore store(&list, path);
    volume.fill();

    for (int number = 0; number < 3; ++number)
        list.addObject(itemNumber(number));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !notifications.delivered.isEmpty(); }, 5000));
    EXPECT_TRUE(notifications.delivered.first().second.contains(path));
    list.addObject(itemNumber(3));
    QTest::qWait(2500);
    EXPECT_EQ(notifications.delivered.size(), 1);

    QFile::remove(volume.path() + "/filler");
    EXPECT_TRUE(QTest::qWaitFor([&] { return rowsInFile(path) == 4; }, 10000));
    EXPECT_EQ(list.rowCount(), 4);
    EXPECT_EQ(notifications.delivered.size(), 1);
}

} // namespace
