#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "tests/support/TemporaryHome.h"

#include <QFile>
#include <gtest/gtest.h>

namespace {

const QString own = QStringLiteral(KORVANE_AGENT_ID);

class UserDefaultsControllerTest : public ::testing::Test
{
protected:
    static QVariantMap readDomain() { return PropertyList::readFile(UserDefaults::pathForDomain(own)).toMap(); }

    TemporaryHome home;
    UserDefaults defaults{own};
    UserDefaultsController controller{&defaults};
};

} // namespace

TEST_F(UserDefaultsControllerTest, StoredValueWinsOverTheInitialOneAndABufferedRemovalHidesBothUntilTheCommit)
{
    ASSERT_TRUE(PropertyList::writeXmlFile(UserDefaults::pathForDomain(own), QVariantMap{{"path", "/stored"}}));
    controller.setInitialValues({{"path", "/initial"}, {"only initial", "initial"}});
    controller.setAppliesImmediately(false);
    EXPECT_EQ(controller.value("path"), QVariant("/stored"));
    EXPECT_EQ(controller.value("only initial"), QVariant("initial"));
    EXPECT_FALSE(controller.value("nowhere").isValid());

    controller.setValue(QVariant(), "path");
    EXPECT_FALSE(controller.value("path").isValid());
    EXPECT_EQ(defaults.objectForKey("path"), QVariant("/stored"));

    ASSERT_TRUE(controller.save());
    EXPECT_FALSE(defaults.objectForKey("path").isValid());
    EXPECT_FALSE(readDomain().contains("path"));
    EXPECT_EQ(controller.value("path"), QVariant("/initial"));
}

TEST_F(UserDefaultsControllerTest, EachWayOfApplyingWritesTheFileThatAnotherStoreSees)
{
    EXPECT_TRUE(controller.appliesImmediately());
    controller.setValue(qint64(3), "now");
    EXPECT_FALSE(controller.hasUnappliedChanges());
    EXPECT_EQ(readDomain(), QVariantMap({{"now", qint64(3)}}));
    controller.setValue(QVariant(), "now");
    EXPECT_TRUE(readDomain().isEmpty());

    controller.setAppliesImmediately(false);
    controller.setValue(true, "saved");
    ASSERT_TRUE(controller.save());
    EXPECT_FALSE(controller.hasUnappliedChanges());
    EXPECT_EQ(UserDefaults(own).objectForKey("saved"), QVariant(true));

    controller.setValue("buffered", "switched");
    EXPECT_FALSE(UserDefaults(own).objectForKey("switched").isValid());
    controller.setAppliesImmediately(true);
    EXPECT_FALSE(controller.hasUnappliedChanges());
    EXPECT_EQ(UserDefaults(own).objectForKey("switched"), QVariant("buffered"));
}
