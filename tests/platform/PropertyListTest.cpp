#include "platform/PropertyList.h"

#include "tests/support/TemporaryHome.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <csignal>

#include <sys/resource.h>

namespace {

QDateTime utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int msec = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, msec), Qt::UTC);
}

QByteArray xmlDocument(const QByteArray &body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

// Makes writes past `bytes` fail with EFBIG, as a full disk would, and works
// for root too. SIGXFSZ is ignored meanwhile so the process survives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &_saved);
        rlimit limit = _saved;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &_saved);
        std::signal(SIGXFSZ, _previousHandler);
    }

private:
    rlimit _saved{};
    void (*_previousHandler)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

} // namespace

// A value the agent wrote came back changed, or a binary list from another program was not read.
TEST(PropertyListTest, WhatTheAgentStoresRoundTripsThroughXmlAndBinaryListsAreReadToo)
{
    const QVariantMap original{
        {"text", "a & b < c > \"d\" é ✓"},
        {"minus one", qint64(-1)},
        {"real", 0.1},
        {"yes", true},
        {"no", false},
        {"bytes", QByteArray("\0\1\2\xff", 4)},
        {"date", utc(2024, 2, 29, 23, 59, 58)},
        {"list", QVariantList{qint64(1), "two", QVariantList{}, QVariantMap{}}},
        {"nested", QVariantMap{{"deeper", QVariantMap{{"list", QVariantList{"x"}}}}}},
        {"strings", QStringList{"a", "b"}},
    };
    QString error;
    const QVariant back = PropertyList::fromData(PropertyList::toXml(original, &error), &error);
    QVariantMap expected = original;
    expected.insert("strings", QVariantList{"a", "b"});
    EXPECT_EQ(back.toMap(), expected) << error.toStdString();

    // Written by libplist itself, the way another program would.
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "text", plist_new_string("ä"));
    plist_dict_set_item(root, "flag", plist_new_bool(1));
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    ASSERT_NE(bytes, nullptr);
    const QByteArray binary(bytes, length);
    plist_to_bin_free(bytes);
    EXPECT_EQ(PropertyList::fromData(binary, &error), QVariant(QVariantMap{{"text", "ä"}, {"flag", true}}))
        << error.toStdString();
}

TEST(PropertyListTest, ReadFileTellsMissingMalformedAndUnreadableApartAndNamesThePath)
{
    TemporaryHome home;
    PropertyList::Status status = PropertyList::Status::Ok;
    QString error;
    const auto expectFailure = [&](const QString &path, PropertyList::Status expected) {
        error.clear();
        EXPECT_FALSE(PropertyList::readFile(path, &status, &error).isValid());
        EXPECT_EQ(status, expected);
        EXPECT_TRUE(error.contains(path)) << error.toStdString();
    };

    expectFailure(home.filePath("absent.plist"), PropertyList::Status::Missing);
    // A binary list whose dictionary key is "\u00e9\u0000b" in UTF-16.
    const QByteArray nulInKey("bplist00\xd1\x01\x02\x63\x00\xe9\x00\x00\x00\x62\x10\x01\x08\x0b\x12\x00\x00\x00\x00"
                              "\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00"
                              "\x00\x00\x00\x00\x00\x00\x00\x14",
                              55);
    for (const QByteArray &bad : {QByteArray("not a plist"), QByteArray(), QByteArray("bplist00garbage"),
                                  xmlDocument("<dict><key>cut</key>"), nulInKey}) {
        SCOPED_TRACE(bad.toStdString());
        expectFailure(home.writeFile("bad.plist", bad), PropertyList::Status::Malformed);
    }
    expectFailure(home.path(), PropertyList::Status::Unreadable);
    const QString locked = home.writeFile("locked.plist", xmlDocument("<dict/>"));
    QFile::setPermissions(locked, QFileDevice::Permissions());
    if (QFile file(locked); !file.open(QIODevice::ReadOnly)) // root reads it all the same
        expectFailure(locked, PropertyList::Status::Unreadable);

    const QString good = home.writeFile("good.plist", xmlDocument("<dict><key>a</key><integer>1</integer></dict>"));
    EXPECT_EQ(PropertyList::readFile(good, &status), QVariant(QVariantMap{{"a", qint64(1)}}));
    EXPECT_EQ(status, PropertyList::Status::Ok);
}

TEST(PropertyListTest, AFailedWriteNamesItsPlaceAndLeavesThePreviousFileWhole)
{
    QString error;
    EXPECT_TRUE(PropertyList::toXml(QVariantMap{{"site", QUrl("https://example.org")}}, &error).isEmpty());
    EXPECT_TRUE(error.contains("QUrl") && error.contains("/site")) << error.toStdString();

    TemporaryHome home;
    const QString path = home.configHome() + "/prefs.plist";
    const QVariantMap previous{{"version", qint64(1)}};
    ASSERT_TRUE(PropertyList::writeXmlFile(path, previous));
    const QByteArray previousBytes = TemporaryHome::readFile(path);
    // A value a plist cannot hold is refused before anything is written.
    EXPECT_FALSE(PropertyList::writeXmlFile(path, QVariantMap{{"bad", QUrl("x:y")}}, &error));
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(TemporaryHome::readFile(path), previousBytes);

    // Larger than the limit, so the temporary copy is cut off part-way, as on a full disk.
    const QVariantMap next{{"version", qint64(2)}, {"padding", QByteArray(64 * 1024, 'x')}};
    bool written = true;
    {
        const FileSizeLimit limit(8 * 1024);
        written = PropertyList::writeXmlFile(path, next, &error);
    }
    EXPECT_FALSE(written);
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(TemporaryHome::readFile(path), previousBytes);
    EXPECT_EQ(QDir(home.configHome()).entryList(QDir::Files | QDir::Hidden), QStringList{"prefs.plist"});

    ASSERT_TRUE(PropertyList::writeXmlFile(path, next, &error)) << error.toStdString();
    EXPECT_EQ(PropertyList::readFile(path), QVariant(next));
}
