#include "AgentFixture.h"

#include "platform/Localization.h"
#include "tests/support/ListedRows.h"
#include "tests/support/RecordingNotificationCenter.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QItemSelectionModel>

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

    void select(std::initializer_list<int> rows) { selectRows(list, rows); }

    RecordingNotificationCenter notifications;
    QXTInfectedViewArrayController *list = nullptr;
    QXTTableView *table = nullptr;
};

TEST_F(InfectedListTest, AnInfectionIsListedOnceNotifiedEachTimeAndShowsTheAlertImageUntilTheListIsCleared)
{
    for (int i = 0; i < 2; ++i)
        agent->infectionFound(QStringLiteral("Korvane.Test.Eicar"), QStringLiteral("/home/u/Downloads/eicar.com"));

    ASSERT_EQ(list->rowCount(), 1);
    EXPECT_EQ(list->arrangedObjects().first().value("filePath").toString(),
              QStringLiteral("/home/u/Downloads/eicar.com"));
    EXPECT_EQ(list->data(list->index(0, 1)).toString(), QStringLiteral("Korvane.Test.Eicar"));
    EXPECT_EQ(notifications.delivered,
              (QList<QPair<QString, QString>>(2, {"Infection Found!", "eicar.com infected with Korvane.Test.Eicar"})));
    // The alert image replaces the watching one, so a scan's end shows it too.
    EXPECT_NE(agent->throbberWatchingImage().cacheKey(), agent->throbberDefaultImage().cacheKey());
    agent->scanFinishedWithStatus(1);
    EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());

    const qint64 alert = agent->throbberWatchingImage().cacheKey();
    agent->clearInfectedList(nullptr);
    EXPECT_EQ(list->rowCount(), 0);
    EXPECT_NE(agent->throbberWatchingImage().cacheKey(), alert);
    EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());
    EXPECT_FALSE(agent->watching());
}

TEST_F(InfectedListTest, NewPathsBecomeUnselectedRowsEvenWhenTheyDifferOnlyInCaseOrATrailingSlash)
{
    // Removing with nothing selected must remove nothing.
    agent->addToInfectedListTheFile("a", "/x/a", "N", "");
    agent->removeSelectedFromInfectedList(nullptr);
    EXPECT_EQ(list->rowCount(), 1);

    select({0});
    EXPECT_EQ(agent->addToInfectedListTheFile("A", "/x/A", "N", ""), 1);
    EXPECT_EQ(agent->addToInfectedListTheFile("a", "/x/a/", "N", ""), 1);
    EXPECT_EQ(agent->addToInfectedListTheFile("a", "/x/a", "Other", ""), 0);
    EXPECT_EQ(agent->addToInfectedListTheFile("b", "~/b", "N", ""), 1);
    EXPECT_EQ(list->rowCount(), 4);
    EXPECT_EQ(list->selectionIndexes(), QList<int>{0});
    EXPECT_EQ(list->data(list->index(3, 2), Qt::ToolTipRole).toString(), home.path() + QStringLiteral("/b"));

    // Removing the selection removes only those rows, and the selection with them.
    select({2});
    agent->removeSelectedFromInfectedList(nullptr);
    ASSERT_EQ(list->rowCount(), 2);
    EXPECT_EQ(list->arrangedObjects().first().value("filePath").toString(), QStringLiteral("/x/A"));
    EXPECT_EQ(list->arrangedObjects().last().value("filePath").toString(), QStringLiteral("~/b"));
    EXPECT_TRUE(list->selectionIndexes().isEmpty());
}

TEST_F(InfectedListTest, CopyPutsAHeaderAndALinePerSelectedRowInListOrderAndWithNothingSelectedBeeps)
{
    agent->addToInfectedListTheFile("a.exe", "/x/a.exe", "Korvane.Test.File-a", "");
    agent->addToInfectedListTheFile("b.doc", "/x/b.doc", "Korvane.Test.Marker", "In Trash");
    agent->addToInfectedListTheFile("c.zip", "/x/c.zip", "Korvane.Test.Eicar", "");
    agent->addToInfectedListTheFile("d.txt", "/x/d.txt", "Korvane.Test.Eicar", "");
    select({3, 0, 1});

    table->copy();

    const QString copied = Localization::text("FILE_NAME") + '\t' + Localization::text("INFECTION_NAME") + '\t'
                           + Localization::text("STATUS") + '\n'
                           + "/x/a.exe\tKorvane.Test.File-a\t\n"
                             "/x/b.doc\tKorvane.Test.Marker\tIn Trash\n"
                             "/x/d.txt\tKorvane.Test.Eicar\t\n";
    EXPECT_EQ(QGuiApplication::clipboard()->text(), copied);
    EXPECT_EQ(alerts.beeps, 0);

    // With nothing selected there is nothing to copy: a beep, and the clipboard keeps what it had.
    list->clearSelection();
    table->copy();
    EXPECT_EQ(alerts.beeps, 1);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), copied);
}

} // namespace
