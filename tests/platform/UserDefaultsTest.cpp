#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryHome.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>

namespace {

const QString own = KORVANE_AGENT_ID, companion = KORVANE_COMPANION_ID;

// Another program editing a domain file behind the store's back.
void writeDomain(const QString &domain, const QVariantMap &values)
{
    ASSERT_TRUE(PropertyList::writeXmlFile(UserDefaults::pathForDomain(domain), values));
}

QVariantMap readDomain(const QString &domain)
{
    return PropertyList::readFile(UserDefaults::pathForDomain(domain)).toMap();
}

} // namespace

TEST(UserDefaultsTest, SynchronizeWritesTheOwnDomainForAnotherStoreToReadButNoValueAPlistCannotHold)
{
    TemporaryHome home;
    LogCapture log;
    QDir(home.configHome()).removeRecursively();
    const QDateTime when(QDate(2001, 3, 24), QTime(15, 45), Qt::UTC);

    UserDefaults writer(own);
    writer.setObjectForKey(qint64(42), "count");
    writer.setObjectForKey(QVariantMap{{"when", when}}, "nested");
    // Refused at once, not at the write.
    writer.setObjectForKey(QUrl("https://example.org"), "site");
    EXPECT_FALSE(writer.objectForKey("site").isValid());
    EXPECT_TRUE(log.anyContains("site"));
    EXPECT_FALSE(QFile::exists(UserDefaults::pathForDomain(own))) << "written before synchronize";
    ASSERT_TRUE(writer.synchronize());

    UserDefaults reader(own);
    EXPECT_EQ(reader.objectForKey("count"), QVariant(qint64(42)));
    EXPECT_EQ(reader.objectForKey("nested").toMap().value("when").toDateTime(), when);
    writer.removeObjectForKey("count");
    ASSERT_TRUE(writer.synchronize());
    EXPECT_FALSE(reader.objectForKey("count").isValid());
    EXPECT_EQ(reader.persistentDomainForName(own).keys(), QStringList{"nested"});
}

TEST(UserDefaultsTest, AFileEditedInPlaceOrRemovedIsSeenAtTheNextRead)
{
    TemporaryHome home;
    UserDefaults defaults(own);
    defaults.addSuiteNamed(companion);
    writeDomain(companion, {{"interval", qint64(5)}});
    EXPECT_EQ(defaults.objectForKey("interval"), QVariant(qint64(5)));

    // Rewritten by hand rather than replaced, as an editor may.
    home.writeFile(".config/" + companion + ".plist",
                   "<plist version=\"1.0\"><dict><key>interval</key><integer>7</integer></dict></plist>");
    EXPECT_EQ(defaults.objectForKey("interval"), QVariant(qint64(7)));

    QFile::remove(UserDefaults::pathForDomain(companion));
    EXPECT_FALSE(defaults.objectForKey("interval").isValid());
}

TEST(UserDefaultsTest, SynchronizeWritesOnlyRealChangesAndMergesThemOverAnotherProgramsEdits)
{
    TemporaryHome home;
    const QByteArray handWritten =
        "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict><key>a</key><string>hand</string>"
        "<key>untouched</key><integer>1</integer><key>doomed</key><true/></dict></plist>\n";
    const QString path = home.writeFile(".config/" + own + ".plist", handWritten);
    UserDefaults defaults(own);
    EXPECT_TRUE(defaults.synchronize());
    defaults.setObjectForKey("hand", "a");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(TemporaryHome::readFile(path), handWritten);

    defaults.setObjectForKey("ours", "mine");
    defaults.removeObjectForKey("doomed");
    writeDomain(own,
                {{"a", "hand"}, {"untouched", qint64(2)}, {"doomed", true}, {"mine", "theirs"}, {"added", "theirs"}});
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_EQ(readDomain(own),
              QVariantMap({{"a", "hand"}, {"untouched", qint64(2)}, {"mine", "ours"}, {"added", "theirs"}}));
}

TEST(UserDefaultsTest, MalformedDomainFileIsLoggedOnceAndNeverOverwritten)
{
    TemporaryHome home;
    LogCapture log;
    const QByteArray garbage = "<plist version=\"1.0\"><dict><key>cut off";
    const QString path = home.writeFile(".config/" + own + ".plist", garbage);

    UserDefaults defaults(own);
    defaults.registerDefaults({{"key", "registered"}});
    // Read twice, logged once.
    EXPECT_EQ(defaults.objectForKey("key"), QVariant("registered"));
    EXPECT_EQ(defaults.objectForKey("key"), QVariant("registered"));
    EXPECT_TRUE(defaults.persistentDomainForName(own).isEmpty());
    ASSERT_EQ(log.lines().size(), 1) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(log.lines().first().startsWith("could not read preferences " + path))
        << log.lines().first().toStdString();

    defaults.setObjectForKey("mine", "key");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(TemporaryHome::readFile(path), garbage);
    EXPECT_EQ(defaults.objectForKey("key"), QVariant("mine"));
    EXPECT_EQ(log.lines().size(), 2) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(log.lines().last().contains(path)) << log.lines().last().toStdString();

    // A different broken version is news again.
    home.writeFile(".config/" + own + ".plist", garbage + "!");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(log.lines().size(), 4) << log.lines().join('\n').toStdString();

    // Once repaired, the kept change is written on top of the repaired file.
    writeDomain(own, {{"repaired", true}});
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_EQ(readDomain(own), QVariantMap({{"repaired", true}, {"key", "mine"}}));
}

TEST(UserDefaultsTest, FailedSynchronizeKeepsTheChangesForTheNextTry)
{
    TemporaryHome home;
    LogCapture log;
    UserDefaults defaults(own);
    defaults.setObjectForKey("kept", "key");

    // A regular file where the config folder should be stops root as well.
    const QString blocker = home.writeFile("blocker", "file");
    qputenv("XDG_CONFIG_HOME", blocker.toUtf8());
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_TRUE(log.anyContains("could not write preferences " + blocker)) << log.lines().join('\n').toStdString();
    EXPECT_EQ(defaults.objectForKey("key"), QVariant("kept"));

    qputenv("XDG_CONFIG_HOME", home.filePath("fresh/config").toUtf8());
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_EQ(readDomain(own), QVariantMap({{"key", "kept"}}));

    // Set but empty counts as unset: ~/.config.
    qputenv("XDG_CONFIG_HOME", "");
    EXPECT_EQ(UserDefaults::pathForDomain(own), home.path() + "/.config/" + own + ".plist");
}
