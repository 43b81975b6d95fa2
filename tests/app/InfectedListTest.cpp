#include "AgentFixture.h"

#include "platform/Localization.h"
#include "platform/StatusItem.h"
#include "tests/support/RecordingNotificationCenter.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QItemSelectionModel>
#include <QTest>

namespace {

class InfectedListTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        list = agent->infectedList();
        table = agent->infectionListTableView();
    }

    void select(std::initializer_list<int> rows)
    {
        for (int row : rows)
            table->selectionModel()->select(list->index(row, 0),
                                            QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }

    RecordingNotificationCenter notifications;
    QXTInfectedViewArrayController *list = nullptr;
    QXTTableView *table = nullptr;
};

TEST_F(InfectedListTest, AnInfectionIsListedOnceNotifiedEachTimeAndTurnsTheIconToAlert)
{
    agent->infectionFound(QStringLiteral("Korvane.Test.Eicar"), QStringLiteral("/home/u/Downloads/eicar.com"));
    agent->infectionFound(QStringLiteral("Korvane.Test.Eicar"), QStringLiteral("/home/u/Downloads/eicar.com"));

    ASSERT_EQ(list->rowCount(), 1);
    const InfectedItem item = list->arrangedObjects().first();
    EXPECT_EQ(item.value("fileName").toString(), QStringLiteral("eicar.com"));
    EXPECT_EQ(item.value("filePath").toString(), QStringLiteral("/home/u/Downloads/eicar.com"));
    EXPECT_EQ(item.value("infectionName").toString(), QStringLiteral("Korvane.Test.Eicar"));
    EXPECT_EQ(item.value("status").toString(), QString());
    EXPECT_FALSE(item.contains("originalFilePath"));
    EXPECT_EQ(list->data(list->index(0, 1)).toString(), QStringLiteral("Korvane.Test.Eicar"));

    ASSERT_EQ(notifications.delivered.size(), 2);
    EXPECT_EQ(notifications.delivered.first(),
              qMakePair(QStringLiteral("Infection Found!"), QStringLiteral("eicar.com infected with Korvane.Test.Eicar")));
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
    // The alert image is what the item goes back to when a scan ends.
    agent->scanFinishedWithStatus(1);
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
    EXPECT_NE(agent->throbberWatchingImage().cacheKey(), agent->throbberDefaultImage().cacheKey());
}

TEST_F(InfectedListTest, PathsThatDifferOnlyInCaseOrATrailingSlashAreSeparateRows)
{
    EXPECT_EQ(agent->addToInfectedListTheFile("a", "/x/a", "N", ""), 1);
    EXPECT_EQ(agent->addToInfectedListTheFile("A", "/x/A", "N", ""), 1);
    EXPECT_EQ(agent->addToInfectedListTheFile("a", "/x/a/", "N", ""), 1);
    EXPECT_EQ(agent->addToInfectedListTheFile("a", "/x/a", "Other", ""), 0);
    EXPECT_EQ(list->rowCount(), 3);
}

TEST_F(InfectedListTest, NewItemsAreNotSelectedAndShowTheirPathAsToolTip)
{
    agent->addToInfectedListTheFile("a", "/x/a", "N", "");
    select({0});
    agent->addToInfectedListTheFile("b", "~/b", "N", "");
    EXPECT_EQ(list->selectionIndexes(), QList<int>{0});
    EXPECT_EQ(list->data(list->index(1, 2), Qt::ToolTipRole).toString(), home.path() + QStringLiteral("/b"));
    EXPECT_FALSE(list->flags(list->index(0, 0)) & Qt::ItemIsDragEnabled);
    EXPECT_FALSE(list->flags(list->index(0, 0)) & Qt::ItemIsDropEnabled);
}

TEST_F(InfectedListTest, RemovingTheSelectionRemovesOnlyThoseRowsAndClearsTheSelection)
{
    for (const char *name : {"a", "b", "c"})
        agent->addToInfectedListTheFile(name, QStringLiteral("/x/") + name, "N", "");
    agent->removeSelectedFromInfectedList(nullptr);
    EXPECT_EQ(list->rowCount(), 3);

    select({0, 2});
    agent->removeSelectedFromInfectedList(nullptr);
    ASSERT_EQ(list->rowCount(), 1);
    EXPECT_EQ(list->arrangedObjects().first().value("fileName").toString(), QStringLiteral("b"));
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
}

TEST_F(InfectedListTest, ClearingEmptiesTheListAndShowsTheWatchingImageAtOnce)
{
    agent->infectionFound("N", "/x/a");
    agent->clearInfectedList(nullptr);
    EXPECT_EQ(list->rowCount(), 0);
    EXPECT_FALSE(agent->watching());
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
    agent->infectionFound("N", "/x/b");
    const qint64 alert = agent->throbberWatchingImage().cacheKey();
    agent->clearInfectedList(nullptr);
    EXPECT_NE(agent->throbberWatchingImage().cacheKey(), alert);
}

TEST_F(InfectedListTest, CopyPutsAHeaderAndOneTabSeparatedLinePerSelectedRow)
{
    agent->addToInfectedListTheFile("a.exe", "/x/a.exe", "Korvane.Test.File-a", "");
    agent->addToInfectedListTheFile("b.doc", "/x/b.doc", "Korvane.Test.Marker", "In Trash");
    agent->addToInfectedListTheFile("c.zip", "/x/c.zip", "Korvane.Test.Eicar", "");
    agent->addToInfectedListTheFile("d.txt", "/x/d.txt", "Korvane.Test.Eicar", "");
    select({3, 0, 1});

    table->copy();

    const QString header = Localization::text("FILE_NAME") + '\t' + Localization::text("INFECTION_NAME") + '\t'
        + Localization::text("STATUS") + '\n';
    EXPECT_EQ(QGuiApplication::clipboard()->text(), header
                  + "/x/a.exe\tKorvane.Test.File-a\t\n"
                    "/x/b.doc\tKorvane.Test.Marker\tIn Trash\n"
                    "/x/d.txt\tKorvane.Test.Eicar\t\n");
}

TEST_F(InfectedListTest, CopyWithNothingSelectedBeepsAndLeavesTheClipboard)
{
    agent->addToInfectedListTheFile("a", "/x/a", "N", "");
    QGuiApplication::clipboard()->setText(QStringLiteral("before"));
    table->copy();
    EXPECT_EQ(alerts.beeps, 1);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("before"));

    QAction copy, selectAll, other;
    copy.setData(QStringLiteral("copy:"));
    selectAll.setData(QStringLiteral("selectAll:"));
    other.setData(QStringLiteral("delete:"));
    EXPECT_FALSE(table->validateMenuItem(&copy));
    EXPECT_TRUE(table->validateMenuItem(&selectAll));
    EXPECT_FALSE(table->validateMenuItem(&other));
    select({0});
    EXPECT_TRUE(table->validateMenuItem(&copy));
}

TEST_F(InfectedListTest, AClickOnANotificationShowsTheWindow)
{
    EXPECT_FALSE(agent->infectionListWindow()->isVisible());
    emit notifications.activated();
    EXPECT_TRUE(agent->infectionListWindow()->isVisible());
}

} // namespace
