#include "tests/support/AnsweringAlertPresenter.h"
#include "tests/support/LogCapture.h"
#include "ui/EnablingRules.h"
#include "ui/EnablingRulesDelegate.h"

#include <QAction>
#include <gtest/gtest.h>

#include <stdexcept>

namespace {

// A controller whose every answer fails, as a platform fault inside a rule would.
class FailingController : public EnablingRulesDelegate
{
public:
    bool startingUp() const override { return false; }
    bool watching() const override { throw std::runtime_error("watching flag unreadable"); }
    QXUtils *utils() override { throw std::runtime_error("settings unreadable"); }
    InfectedItemsWindow *infectionListWindow() const override { throw std::runtime_error("list window gone"); }
};

TEST(EnablingRulesTest, AFaultInARuleIsLoggedWithThreeBeepsAndLeavesTheItemEnabled)
{
    struct Case
    {
        const char *action;
        QString identifier;
        bool toolbar;
        const char *reason;
    };
    const QList<Case> cases{
        {"doNothing:", {}, false, "watching flag unreadable"},
        {"updateDefs:", {}, false, "settings unreadable"},
        {"revealInFinder:", ToolbarItemIdentifier::reveal, true, "list window gone"},
    };
    FailingController controller;
    EnablingRules rules(&controller);
    for (const Case &test : cases) {
        SCOPED_TRACE(test.action);
        AnsweringAlertPresenter beeps;
        LogCapture log;
        QAction item;
        item.setData(QString::fromLatin1(test.action));
        item.setObjectName(test.identifier);

        EXPECT_TRUE(test.toolbar ? rules.validateToolbarItem(&item) : rules.validateMenuItem(&item));
        EXPECT_EQ(beeps.beeps, 3);
        EXPECT_EQ(log.lines(), QStringList{QString::fromLatin1(test.reason)});
    }
}

} // namespace
