#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"

#include "tests/support/TemporaryHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

const QString own = QStringLiteral(KORVANE_AGENT_ID);

QVariantMap readDomain()
{
    return PropertyList::readFile(UserDefaults::pathForDomain(own)).toMap();
}

} // namespace

TEST(UserDefaultsControllerTest, BufferedValueIsSeenBeforeCommitAndGoneAfterRevert)
{
    TemporaryHome home;
    UserDefaults defaults(own);
    defaults.registerDefaults({{"interval", qint64(60)}});
    UserDefaultsController controller(&defaults);
    controller.setAppliesImmediately(false);

    controller.setValue(qint64(5), "interval");
    EXPECT_EQ(controller.value("interval"), QVariant(qint64(5)));
    EXPECT_TRUE(controller.hasUnappliedChanges());
    EXPECT_EQ(defaults.objectForKey("interval"), QVariant(qint64(60)));
    EXPECT_FALSE(QFile::exists(UserDefaults::pathForDomain(own)));

    controller.revert();
    EXPECT_FALSE(controller.hasUnappliedChanges());
    EXPECT_EQ(controller.value("interval"), QVariant(qint64(60)));
}

TEST(UserDefaultsControllerTest, BufferedRemovalHidesTheStoredAndInitialValue)
{
    TemporaryHome home;
    ASSERT_TRUE(PropertyList::writeXmlFile(UserDefaults::pathForDomain(own), QVariantMap {{"path", "/stored"}}));
    UserDefaults defaults(own);
    UserDefaultsController controller(&defaults);
    controller.setInitialValues({{"path", "/initial"}});
    controller.setAppliesImmediately(false);

    controller.setValue(QVariant(), "path");
    EXPECT_FALSE(controller.value("path").isValid());
    EXPECT_EQ(defaults.objectForKey("path"), QVariant("/stored"));

    ASSERT_TRUE(controller.save());
    EXPECT_FALSE(defaults.objectForKey("path").isValid());
    EXPECT_FALSE(readDomain().contains("path"));
    EXPECT_EQ(controller.value("path"), QVariant("/initial"));
}

TEST(UserDefaultsControllerTest, StoreSearchOrderComesBeforeInitialValues)
{
    TemporaryHome home;
    UserDefaults defaults(own);
    defaults.registerDefaults({{"registered", "store"}});
    UserDefaultsController controller(&defaults);
    controller.setInitialValues({{"registered", "initial"}, {"only initial", "initial"}});
    EXPECT_EQ(controller.value("registered"), QVariant("store"));
    EXPECT_EQ(controller.value("only initial"), QVariant("initial"));
    EXPECT_FALSE(controller.value("nowhere").isValid());
}

TEST(UserDefaultsControllerTest, CommitWritesTheFileThatAnotherStoreSees)
{
    TemporaryHome home;
    UserDefaults defaults(own);
    UserDefaultsController controller(&defaults);
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

TEST(UserDefaultsControllerTest, ApplyingImmediatelyWritesEachValueThrough)
{
    TemporaryHome home;
    UserDefaults defaults(own);
    UserDefaultsController controller(&defaults);
    EXPECT_TRUE(controller.appliesImmediately());
    controller.setValue(qint64(3), "now");
    EXPECT_FALSE(controller.hasUnappliedChanges());
    EXPECT_EQ(readDomain(), QVariantMap({{"now", qint64(3)}}));
    controller.setValue(QVariant(), "now");
    EXPECT_TRUE(readDomain().isEmpty());
}
