#include "platform/PropertyList.h"

#include "tests/support/TemporaryHome.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <csignal>
#include <cstdint>
#include <limits>

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

QVariant roundTrip(const QVariant &value)
{
    QString error;
    const QByteArray xml = PropertyList::toXml(value, &error);
    EXPECT_FALSE(xml.isEmpty()) << error.toStdString();
    return PropertyList::fromData(xml, &error);
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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
    rlimit _saved {};
    void (*_previousHandler)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

} // namespace

TEST(PropertyListTest, EveryTypeRoundTripsThroughXmlAndQtTypesBecomeTheirPlistKinds)
{
    const QVariantMap original {
        {"text", "a & b < c > \"d\" é ✓"},
        {"empty text", QString("")},
        {"zero", qint64(0)},
        {"largest", std::numeric_limits<qint64>::max()},
        {"smallest", std::numeric_limits<qint64>::min()},
        {"minus one", qint64(-1)},
        {"all ones", std::numeric_limits<quint64>::max()},
        {"real", 0.1},
        {"huge real", -2.5e300},
        {"yes", true},
        {"no", false},
        {"bytes", QByteArray("\0\1\2\xff", 4)},
        {"no bytes", QByteArray("")},
        {"date", utc(2024, 2, 29, 23, 59, 58)},
        {"list", QVariantList {qint64(1), "two", QVariantList {}, QVariantMap {}}},
        {"nested", QVariantMap {{"deeper", QVariantMap {{"list", QVariantList {utc(1999, 12, 31, 0, 0, 1)}}}}}},
    };
    const QVariant back = roundTrip(original);
    ASSERT_EQ(back.typeId(), QMetaType::QVariantMap);
    EXPECT_EQ(back.toMap(), original);
    // Equal variants may still differ in type; the sign of 64-bit integers hangs on it.
    for (const char *key : {"all ones", "minus one", "smallest", "largest"})
        EXPECT_EQ(back.toMap().value(key).typeId(), original.value(key).typeId()) << key;
    EXPECT_EQ(back.toMap().value("date").toDateTime().timeSpec(), Qt::UTC);

    const QVariantHash hash {{"strings", QStringList {"a", "b"}}, {"short", QVariant::fromValue<short>(-7)},
                             {"uchar", QVariant::fromValue<uchar>(200)}, {"uint", 4000000000u},
                             {"float", 1.5f}, {"day", QDate(2001, 3, 24)}};
    EXPECT_EQ(roundTrip(hash).toMap(), (QVariantMap {{"strings", QVariantList {"a", "b"}}, {"short", qint64(-7)},
                                                    {"uchar", qint64(200)}, {"uint", qint64(4000000000)},
                                                    {"float", 1.5}, {"day", utc(2001, 3, 24)}}));
}

TEST(PropertyListTest, IntegersAboveInt64AndBelowZeroKeepTheirSign)
{
    EXPECT_TRUE(PropertyList::toXml(std::numeric_limits<quint64>::max()).contains("<integer>18446744073709551615</integer>"));
    EXPECT_TRUE(PropertyList::toXml(qint64(-1)).contains("<integer>-1</integer>"));

    // -1 and the largest unsigned have the same 64 bits; the text tells them apart.
    const QVariantList values = PropertyList::fromData(
        xmlDocument("<array><integer>-1</integer><integer>18446744073709551615</integer>"
                    "<integer>9223372036854775808</integer><integer>-9223372036854775808</integer></array>")).toList();
    const QVariantList expected {qint64(-1), std::numeric_limits<quint64>::max(), quint64(1) << 63,
                                 std::numeric_limits<qint64>::min()};
    ASSERT_EQ(values.size(), expected.size());
    for (qsizetype i = 0; i < values.size(); ++i) {
        EXPECT_EQ(values[i], expected[i]) << i;
        EXPECT_EQ(values[i].typeId(), expected[i].typeId()) << i;
    }
}

TEST(PropertyListTest, DatesCountFromTwoThousandOneInUtc)
{
    const QVariantList dates = PropertyList::fromData(xmlDocument(
        "<array><date>2001-03-24T15:45:00Z</date><date>2001-01-01T00:00:00Z</date><date>1970-01-01T00:00:00Z</date>"
        "<date>1901-12-13T20:45:52Z</date><date>2100-01-01T00:00:00Z</date></array>")).toList();
    // 1901 lies beyond the int32 seconds libplist hands out.
    EXPECT_EQ(dates, (QVariantList {utc(2001, 3, 24, 15, 45), utc(2001, 1, 1), utc(1970, 1, 1),
                                    utc(1901, 12, 13, 20, 45, 52), utc(2100, 1, 1)}));
    EXPECT_EQ(dates.value(0).toDateTime().timeSpec(), Qt::UTC);

    const QDateTime inBerlin(QDate(2001, 3, 24), QTime(16, 45, 0, 900), Qt::OffsetFromUTC, 3600);
    const QByteArray xml = PropertyList::toXml(QVariantList {inBerlin, utc(1999, 12, 31, 23, 59, 59, 500), utc(2150, 6, 1, 12)});
    for (const char *written : {"2001-03-24T15:45:00Z", "1999-12-31T23:59:59Z", "2150-06-01T12:00:00Z"})
        EXPECT_TRUE(xml.contains("<date>" + QByteArray(written) + "</date>")) << xml.constData();

    QString error;
    EXPECT_TRUE(PropertyList::toXml(QDateTime()).isEmpty());
    EXPECT_TRUE(PropertyList::toXml(utc(999, 1, 1), &error).isEmpty());
    EXPECT_TRUE(error.contains("date")) << error.toStdString();
}

TEST(PropertyListTest, BinaryPlistsAreReadWithMillisecondsAndWideIntegers)
{
    // Written by libplist itself, the way another program would.
    const QByteArray wide = xmlDocument("<integer>18446744073709551615</integer>");
    plist_t wideNode = nullptr;
    plist_from_xml(wide.constData(), uint32_t(wide.size()), &wideNode);
    ASSERT_NE(wideNode, nullptr);

    plist_t root = plist_new_dict();
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_string("ä"));
    plist_array_append_item(list, plist_new_uint(uint64_t(-5)));
    plist_array_append_item(list, wideNode);
    plist_dict_set_item(root, "list", list);
    plist_dict_set_item(root, "when", plist_new_date(7141500, 250000));
    plist_dict_set_item(root, "before", plist_new_date(-3, 750000));
    plist_dict_set_item(root, "real", plist_new_real(3.25));
    plist_dict_set_item(root, "flag", plist_new_bool(1));
    plist_dict_set_item(root, "blob", plist_new_data("\0x", 2));
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    ASSERT_NE(bytes, nullptr);
    const QByteArray binary(bytes, length);
    plist_to_bin_free(bytes);
    ASSERT_TRUE(binary.startsWith("bplist00"));

    QString error;
    const QVariantMap map = PropertyList::fromData(binary, &error).toMap();
    ASSERT_FALSE(map.isEmpty()) << error.toStdString();
    EXPECT_EQ(map, (QVariantMap {{"list", QVariantList {"ä", qint64(-5), std::numeric_limits<quint64>::max()}},
                                 {"when", utc(2001, 3, 24, 15, 45, 0, 250)},
                                 {"before", utc(2000, 12, 31, 23, 59, 57, 750)},
                                 {"real", 3.25},
                                 {"flag", true},
                                 {"blob", QByteArray("\0x", 2)}}));
    EXPECT_EQ(map.value("list").toList().value(2).typeId(), QMetaType::ULongLong);
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
    for (const QByteArray &bad : {QByteArray("not a plist"), QByteArray(), QByteArray("bplist00garbage"),
                                  xmlDocument("<dict><key>cut</key>")}) {
        SCOPED_TRACE(bad.toStdString());
        expectFailure(home.writeFile("bad.plist", bad), PropertyList::Status::Malformed);
    }
    expectFailure(home.path(), PropertyList::Status::Unreadable);

    const QString good = home.writeFile("good.plist", xmlDocument("<dict><key>a</key><integer>1</integer></dict>"));
    EXPECT_EQ(PropertyList::readFile(good, &status), QVariant(QVariantMap {{"a", qint64(1)}}));
    EXPECT_EQ(status, PropertyList::Status::Ok);
}

TEST(PropertyListTest, FileWithoutReadPermissionIsUnreadable)
{
    TemporaryHome home;
    const QString path = home.writeFile("locked.plist", xmlDocument("<dict/>"));
    QFile::setPermissions(path, QFileDevice::Permissions());
    if (QFile file(path); file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "running as root: file permissions do not stop reads here";
    PropertyList::Status status = PropertyList::Status::Ok;
    EXPECT_FALSE(PropertyList::readFile(path, &status).isValid());
    EXPECT_EQ(status, PropertyList::Status::Unreadable);
}

TEST(PropertyListTest, AFailedWriteNamesItsPlaceAndLeavesThePreviousFileWhole)
{
    QString error;
    EXPECT_TRUE(PropertyList::toXml(QVariantMap {{"site", QUrl("https://example.org")}}, &error).isEmpty());
    EXPECT_TRUE(error.contains("QUrl") && error.contains("/site")) << error.toStdString();
    EXPECT_TRUE(PropertyList::toXml(QVariantList {qint64(1), QVariant()}, &error).isEmpty());
    EXPECT_TRUE(error.contains("/1")) << error.toStdString();

    TemporaryHome home;
    const QString path = home.configHome() + "/prefs.plist";
    const QVariantMap previous {{"version", qint64(1)}};
    ASSERT_TRUE(PropertyList::writeXmlFile(path, previous));
    const QByteArray previousBytes = readAll(path);
    // A value a plist cannot hold is refused before anything is written.
    EXPECT_FALSE(PropertyList::writeXmlFile(path, QVariantMap {{"bad", QUrl("x:y")}}, &error));
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(readAll(path), previousBytes);

    // Larger than the limit, so the temporary copy is cut off part-way, as on a full disk.
    const QVariantMap next {{"version", qint64(2)}, {"padding", QByteArray(64 * 1024, 'x')}};
    bool written = true;
    {
        const FileSizeLimit limit(8 * 1024);
        written = PropertyList::writeXmlFile(path, next, &error);
    }
    EXPECT_FALSE(written);
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(readAll(path), previousBytes);
    EXPECT_EQ(QDir(home.configHome()).entryList(QDir::Files | QDir::Hidden), QStringList {"prefs.plist"});

    ASSERT_TRUE(PropertyList::writeXmlFile(path, next, &error)) << error.toStdString();
    EXPECT_EQ(PropertyList::readFile(path), QVariant(next));
}
