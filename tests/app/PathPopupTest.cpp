#include "AgentFixture.h"

#include "ui/InfectedItemsWindow.h"
#include "ui/QXAttachedWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QApplication>
#include <QItemSelectionModel>
#include <QLabel>
#include <QTest>

#include <functional>

namespace {

const QString shortPath = QStringLiteral("/home/ann/eicar.com");
const QString longPath = QStringLiteral("/home/ann/Mail/attachments/2026/November/from-a-sender-we-do-not-know/"
                                        "invoice_copy_final_really_final_2026_11_23_scan_of_the_scan.pdf.exe");

class PathPopupTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        agent->showInfectionListWindow(nullptr);
        agent->infectionListWindow()->move(40, 40);
        list = agent->infectedList();
        table = agent->infectionListTableView();
        fill();
    }

    void fill()
    {
        for (const QString &path : {shortPath, longPath, QStringLiteral("/home/ann/b.zip")})
            agent->addToInfectedListTheFile(path.section('/', -1), path, "Eicar-Signature", "");
    }

    void selectOnly(int row)
    {
        table->selectionModel()->select(list->index(row, 0),
                                        QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    }

    // The path as the user reads it, without the invisible break points.
    QString shownPath() const { return agent->popupFloaterTextField()->text().remove(QChar(0x200B)); }

    static int popupsOnScreen()
    {
        int count = 0;
        for (QWidget *widget : QApplication::allWidgets())
            count += qobject_cast<QXAttachedWindow *>(widget) && widget->isVisible();
        return count;
    }

    // Where the arrow should point: the table's middle, the row's middle.
    QPoint pointAtRow(int row) const
    {
        const QRect cell = table->visualRect(list->index(row, 1));
        return {table->mapToGlobal(QPoint(table->width() / 2, 0)).x(),
                table->viewport()->mapToGlobal(cell.center()).y()};
    }

    QXTInfectedViewArrayController *list = nullptr;
    QXTTableView *table = nullptr;
};

TEST_F(PathPopupTest, ThePopupShowsThePathRightOfTheTableMiddleWithItsArrowOnTheRowAndFollowsTheWindow)
{
    selectOnly(2);
    agent->showInfectedPath(nullptr);
    QXAttachedWindow *popup = agent->attachedWindow();
    ASSERT_NE(popup, nullptr);
    EXPECT_TRUE(popup->isVisible());
    EXPECT_EQ(popup->parentWidget(), agent->infectionListWindow());
    EXPECT_EQ(shownPath(), QStringLiteral("/home/ann/b.zip"));

    const auto expectBesideRow = [&] {
        const QPoint point = pointAtRow(2);
        EXPECT_EQ(popup->geometry().left(), point.x() + 10);
        EXPECT_NEAR(popup->geometry().center().y(), point.y(), 1);
    };
    expectBesideRow();
    agent->infectionListWindow()->move(90, 70);
    expectBesideRow();
    agent->infectionListWindow()->resize(500, 400);
    expectBesideRow();
}

TEST_F(PathPopupTest, ALongPathGrowsThePopupAndAShortOneShrinksItWithAllOfThePathInside)
{
    QList<int> heights;
    for (int row : {1, 0, 1}) {
        selectOnly(row);
        agent->showInfectedPath(nullptr);
        ASSERT_NE(agent->attachedWindow(), nullptr);
        EXPECT_EQ(shownPath(), list->arrangedObjects().at(row).value("filePath").toString());
        QLabel *field = agent->popupFloaterTextField();
        EXPECT_GE(field->height(), field->heightForWidth(field->width()));
        EXPECT_LE(field->geometry().bottom(), agent->popupFloaterView()->height());
        heights.append(agent->attachedWindow()->height());
    }
    EXPECT_GT(heights[0], heights[1] + 2 * agent->popupFloaterTextField()->fontMetrics().height());
    EXPECT_EQ(heights[2], heights[0]);
}

TEST_F(PathPopupTest, ShowingThePathAgainLeavesOnePopupForTheCurrentSelectionAndNoneWithoutOne)
{
    selectOnly(0);
    agent->showInfectedPath(nullptr);
    selectOnly(1);
    agent->showInfectedPath(nullptr);
    EXPECT_EQ(popupsOnScreen(), 1);
    EXPECT_EQ(shownPath(), longPath);

    // The second row's arrow, not the first's.
    EXPECT_NEAR(agent->attachedWindow()->geometry().center().y(), pointAtRow(1).y(), 1);

    list->clearSelection();
    agent->showInfectedPath(nullptr);
    EXPECT_EQ(agent->attachedWindow(), nullptr);
    EXPECT_EQ(popupsOnScreen(), 0);
}

TEST_F(PathPopupTest, RemovingRowsClearingTheListOrAClickIntoThePopupClosesIt)
{
    struct Case
    {
        const char *name;
        std::function<void()> act;
    };
    const Case cases[] = {
        {"removing the selected rows", [&] { agent->removeSelectedFromInfectedList(nullptr); }},
        {"the list's own remove", [&] { list->remove(); }},
        {"clearing the list", [&] { agent->clearInfectedList(nullptr); }},
        {"a click",
         [&] {
             QTest::mouseClick(agent->popupFloaterTextField(), Qt::LeftButton);
             // Closed after the click, not inside it.
             EXPECT_NE(agent->attachedWindow(), nullptr);
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        agent->clearInfectedList(nullptr);
        fill();
        selectOnly(1);
        agent->showInfectedPath(nullptr);
        ASSERT_NE(agent->attachedWindow(), nullptr);

        c.act();
        EXPECT_TRUE(QTest::qWaitFor([&] { return agent->attachedWindow() == nullptr; }, 5000));
        EXPECT_EQ(popupsOnScreen(), 0);
        // The floater view is kept for the next popup.
        ASSERT_NE(agent->popupFloaterView(), nullptr);
        EXPECT_EQ(agent->popupFloaterView()->parentWidget(), nullptr);
    }
}

} // namespace
