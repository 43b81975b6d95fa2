#include "platform/TrayStatusItem.h"

#include <QMenu>
#include <QSystemTrayIcon>
#include <gtest/gtest.h>

namespace {

TEST(TrayStatusItemTest, ALeftClickOnTheIconOpensItsMenuAndOtherClicksAreLeftToTheTray)
{
    TrayStatusItem item;
    QMenu menu;
    menu.addAction(QStringLiteral("About"));
    item.setMenu(&menu);
    auto *icon = item.findChild<QSystemTrayIcon *>();
    ASSERT_NE(icon, nullptr);

    for (auto reason : {QSystemTrayIcon::Context, QSystemTrayIcon::DoubleClick, QSystemTrayIcon::MiddleClick}) {
        emit icon->activated(reason);
        EXPECT_FALSE(menu.isVisible()) << reason;
    }
    emit icon->activated(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(menu.isVisible());
    menu.hide();

    item.setMenu(nullptr);
    emit icon->activated(QSystemTrayIcon::Trigger);
}

} // namespace
