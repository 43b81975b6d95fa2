#include "AgentFixture.h"

#include "platform/Localization.h"
#include "platform/UserFolders.h"
#include "tests/support/ListedRows.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QAction>
#include <QToolBar>

#include <functional>
#include <iterator>

namespace {

class ToolbarTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        toolbar = agent->toolbar();
        list = agent->infectedList();
    }

    QList<bool> buttonsEnabled() const
    {
        QList<bool> enabled;
        for (const QAction *item : toolbar->actions())
            enabled << item->isEnabled();
        return enabled;
    }

    int addRow(const QString &path, const QString &status = {}, bool selected = true)
    {
        return addListedRow(list, path, status, {}, selected);
    }

    QToolBar *toolbar = nullptr;
    QXTInfectedViewArrayController *list = nullptr;
};

TEST_F(ToolbarTest, FourButtonsWithIconAndLabelInOrderStartTheListsOperations)
{
    const std::pair<const char *, const char *> buttons[]{{"TOOLBAR_REVEAL", "revealInFinder:"},
                                                          {"TOOLBAR_QUARANTINE", "quarantineFile:"},
                                                          {"TOOLBAR_DELETE", "deleteFile:"},
                                                          {"TOOLBAR_INFECTIONLIST", "clearInfectedList:"}};
    const QList<QAction *> items = toolbar->actions();
    ASSERT_EQ(items.size(), std::size(buttons));
    for (qsizetype i = 0; i < items.size(); ++i) {
        EXPECT_EQ(items[i]->iconText() + items[i]->data().toString(),
                  Localization::text(buttons[i].first) + buttons[i].second);
        EXPECT_EQ(items[i]->toolTip(), Localization::text(buttons[i].first + QStringLiteral("_TOOLTIP")));
        EXPECT_FALSE(items[i]->icon().isNull());
    }

    // The buttons start the list's operations.
    addRow("/x/a", {}, false);
    items.last()->trigger();
    EXPECT_EQ(list->rowCount(), 0);
}

TEST_F(ToolbarTest, ButtonsFollowTheListTheSelectionAndTheRowsStatusEvenWhileStartingUp)
{
    const QString trashed = UserFolders::dataHome() + QStringLiteral("/Trash/files/eicar.com");
    struct Situation
    {
        const char *name;
        std::function<void()> arrange;
        QList<bool> revealQuarantineDeleteClear;
    };
    const QList<Situation> situations{
        {"an empty list", [] {}, {false, false, false, false}},
        {"rows, none selected",
         [&] {
             addRow("/x/a", {}, false);
             addRow("/x/b", {}, false);
         },
         {false, false, false, true}},
        {"an untouched row selected", [&] { addRow("/x/a"); }, {true, true, true, true}},
        {"a quarantined row selected",
         [&] { addRow(home.filePath("Quarantine/a"), "Quarantined"); },
         {true, false, true, true}},
        {"a trashed row selected", [&] { addRow(trashed, "Trashed"); }, {true, false, false, true}},
        {"an untouched row that is then quarantined",
         [&] {
             const int row = addRow("/x/a");
             InfectedItem item = list->arrangedObjects().at(row);
             item.insert("status", "Quarantined");
             list->replaceObjectAtRow(row, item);
         },
         {true, false, true, true}},
        {"a selected row removed again",
         [&] {
             addRow("/x/a", {}, false);
             addRow("/x/b");
             list->remove();
         },
         {false, false, false, true}},
        {"no quarantine folder, an untouched row selected",
         [&] {
             home.writeDomain(companionDomain, {});
             addRow("/x/a");
         },
         {true, false, true, true}},
    };

    ASSERT_TRUE(agent->startingUp());
    for (const Situation &situation : situations) {
        SCOPED_TRACE(situation.name);
        home.writeDomain(companionDomain, {{QStringLiteral("QuarantineFolder"), QStringLiteral("~/Quarantine")}});
        list->removeAllObjects();
        situation.arrange();
        EXPECT_EQ(buttonsEnabled(), situation.revealQuarantineDeleteClear);
    }
}

} // namespace
