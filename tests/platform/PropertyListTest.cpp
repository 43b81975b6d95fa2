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

QDateTime utc(int year, int month, int day, int hour, int minute, int second, int msec = 0)
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
        _previousHandler = std::signal(SIGXFSZ, SIG_IGN);
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
    void (*_previousHandler)(int) = nullptr;
};

} // namespace

TEST(PropertyListTest, EveryTypeRoundTripsThroughXmlInsideNestedContainers)
{
    const QVariantMap original {
        {"text", QStringLiteral("a & b < c > \"d\" é ✓")},
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
        {"list", QVariantList {qint64(1), QStringLiteral("two"), QVariantList {}, QVariantMap {}}},
        {"nested", QVariantMap {{"deeper", QVariantMap {{"list", QVariantList {utc(1999, 12, 31, 0, 0, 1)}}}}}},
    };
    const QVariant back = roundTrip(original);
    ASSERT_EQ(back.typeId(), QMetaType::QVariantMap);
    EXPECT_EQ(back.toMap(), original);

    const QVariantMap map = back.toMap();
    EXPECT_EQ(map.value("all ones").typeId(), QMetaType::ULongLong);
    EXPECT_EQ(map.value("minus one").typeId(), QMetaType::LongLong);
    EXPECT_EQ(map.value("smallest").typeId(), QMetaType::LongLong);
    EXPECT_EQ(map.value("largest").typeId(), QMetaType::LongLong);
    EXPECT_EQ(map.value("date").toDateTime().timeSpec(), Qt::UTC);
}

TEST(PropertyListTest, QtCollectionAndIntegerTypesAreWrittenAsTheirPlistKinds)
{
    const QVariantHash hash {{"strings", QStringList {"a", "b"}}, {"short", QVariant::fromValue<short>(-7)},
                             {"uchar", QVariant::fromValue<uchar>(200)}, {"uint", 4000000000u},
                             {"float", 1.5f}, {"day", QDate(2001, 3, 24)}};
    const QVariantMap back = roundTrip(hash).toMap();
    EXPECT_EQ(back.value("strings"), QVariantList({"a", "b"}));
    EXPECT_EQ(back.value("short"), QVariant(qint64(-7)));
    EXPECT_EQ(back.value("uchar"), QVariant(qint64(200)));
    EXPECT_EQ(back.value("uint"), QVariant(qint64(4000000000)));
    EXPECT_EQ(back.value("float"), QVariant(1.5));
    EXPECT_EQ(back.value("day"), QVariant(utc(2001, 3, 24, 0, 0, 0)));
}

TEST(PropertyListTest, IntegersAboveInt64AndBelowZeroKeepTheirSign)
{
    const QByteArray unsignedXml = PropertyList::toXml(std::numeric_limits<quint64>::max());
    EXPECT_TRUE(unsignedXml.contains("<integer>18446744073709551615</integer>")) << unsignedXml.constData();
    const QByteArray negativeXml = PropertyList::toXml(qint64(-1));
    EXPECT_TRUE(negativeXml.contains("<integer>-1</integer>")) << negativeXml.constData();

    // Both have the same 64 bits; the text tells them apart.
    const QVariant list = PropertyList::fromData(
        xmlDocument("<array><integer>-1</integer><integer>18446744073709551615</integer>"
                    "<integer>9223372036854775808</integer><integer>-9223372036854775808</integer></array>"));
    const QVariantList values = list.toList();
    ASSERT_EQ(values.size(), 4);
    EXPECT_EQ(values[0].typeId(), QMetaType::LongLong);
    EXPECT_EQ(values[0].toLongLong(), -1);
    EXPECT_EQ(values[1].typeId(), QMetaType::ULongLong);
    EXPECT_EQ(values[1].toULongLong(), std::numeric_limits<quint64>::max());
    EXPECT_EQ(values[2].typeId(), QMetaType::ULongLong);
    EXPECT_EQ(values[2].toULongLong(), quint64(1) << 63);
    EXPECT_EQ(values[3].typeId(), QMetaType::LongLong);
    EXPECT_EQ(values[3].toLongLong(), std::numeric_limits<qint64>::min());
}

TEST(PropertyListTest, DatesCountFromTwoThousandOneInUtc)
{
    const QVariantList dates = PropertyList::fromData(xmlDocument("<array>"
                                                                  "<date>2001-03-24T15:45:00Z</date>"
                                                                  "<date>2001-01-01T00:00:00Z</date>"
                                                                  "<date>1970-01-01T00:00:00Z</date>"
                                                                  "<date>1901-12-13T20:45:52Z</date>"
                                                                  "<date>2100-01-01T00:00:00Z</date>"
                                                                  "</array>"))
                                   .toList();
    ASSERT_EQ(dates.size(), 5);
    EXPECT_EQ(dates[0].toDateTime(), utc(2001, 3, 24, 15, 45, 0));
    EXPECT_EQ(dates[0].toDateTime().timeSpec(), Qt::UTC);
    EXPECT_EQ(dates[1].toDateTime(), utc(2001, 1, 1, 0, 0, 0));
    EXPECT_EQ(dates[2].toDateTime(), utc(1970, 1, 1, 0, 0, 0));
    // Beyond the int32 seconds libplist hands out.
    EXPECT_EQ(dates[3].toDateTime(), utc(1901, 12, 13, 20, 45, 52));
    EXPECT_EQ(dates[4].toDateTime(), utc(2100, 1, 1, 0, 0, 0));

    const QDateTime inBerlin(QDate(2001, 3, 24), QTime(16, 45, 0, 900), Qt::OffsetFromUTC, 3600);
    const QByteArray xml = PropertyList::toXml(QVariantList {inBerlin, utc(1999, 12, 31, 23, 59, 59, 500),
                                                             utc(2150, 6, 1, 12, 0, 0)});
    EXPECT_TRUE(xml.contains("<date>2001-03-24T15:45:00Z</date>")) << xml.constData();
    EXPECT_TRUE(xml.contains("<date>1999-12-31T23:59:59Z</date>")) << xml.constData();
    EXPECT_TRUE(xml.contains("<date>2150-06-01T12:00:00Z</date>")) << xml.constData();

    QString error;
    EXPECT_TRUE(PropertyList::toXml(QDateTime()).isEmpty());
    EXPECT_TRUE(PropertyList::toXml(utc(999, 1, 1, 0, 0, 0), &error).isEmpty());
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
    EXPECT_EQ(map.value("list"), QVariantList({QStringLiteral("ä"), qint64(-5), std::numeric_limits<quint64>::max()}));
    EXPECT_EQ(map.value("list").toList().value(2).typeId(), QMetaType::ULongLong);
    EXPECT_EQ(map.value("when").toDateTime(), utc(2001, 3, 24, 15, 45, 0, 250));
    EXPECT_EQ(map.value("before").toDateTime(), utc(2000, 12, 31, 23, 59, 57, 750));
    EXPECT_EQ(map.value("real"), QVariant(3.25));
    EXPECT_EQ(map.value("flag"), QVariant(true));
    EXPECT_EQ(map.value("blob"), QVariant(QByteArray("\0x", 2)));
}

TEST(PropertyListTest, ValuesAPlistCannotHoldAreRefusedWithTheirPlace)
{
    QString error;
    EXPECT_TRUE(PropertyList::toXml(QVariantMap {{"site", QUrl("https://example.org")}}, &error).isEmpty());
    EXPECT_TRUE(error.contains("QUrl")) << error.toStdString();
    EXPECT_TRUE(error.contains("/site")) << error.toStdString();

    error.clear();
    EXPECT_TRUE(PropertyList::toXml(QVariantList {qint64(1), QVariant()}, &error).isEmpty());
    EXPECT_TRUE(error.contains("/1")) << error.toStdString();

    // Nothing is written when the value is refused.
    TemporaryHome home;
    const QByteArray old = xmlDocument("<dict><key>kept</key><true/></dict>");
    const QString path = home.writeFile("refused.plist", old);
    EXPECT_FALSE(PropertyList::writeXmlFile(path, QVariantMap {{"bad", QUrl("x:y")}}, &error));
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(readAll(path), old);
}

TEST(PropertyListTest, ReadFileTellsMissingFromMalformedAndNamesThePath)
{
    TemporaryHome home;
    PropertyList::Status status = PropertyList::Status::Ok;
    QString error;

    const QString missing = home.filePath("absent.plist");
    EXPECT_FALSE(PropertyList::readFile(missing, &status, &error).isValid());
    EXPECT_EQ(status, PropertyList::Status::Missing);
    EXPECT_TRUE(error.contains(missing));

    for (const QByteArray &bad : {QByteArray("not a plist"), QByteArray(), QByteArray("bplist00garbage"),
                                  xmlDocument("<dict><key>cut</key>")}) {
        const QString path = home.writeFile("bad.plist", bad);
        error.clear();
        EXPECT_FALSE(PropertyList::readFile(path, &status, &error).isValid()) << bad.constData();
        EXPECT_EQ(status, PropertyList::Status::Malformed) << bad.constData();
        EXPECT_TRUE(error.contains(path)) << error.toStdString();
    }

    const QString good = home.writeFile("good.plist", xmlDocument("<dict><key>a</key><integer>1</integer></dict>"));
    EXPECT_EQ(PropertyList::readFile(good, &status), QVariant(QVariantMap {{"a", qint64(1)}}));
    EXPECT_EQ(status, PropertyList::Status::Ok);

    error.clear();
    EXPECT_FALSE(PropertyList::readFile(home.path(), &status, &error).isValid());
    EXPECT_EQ(status, PropertyList::Status::Unreadable);
    EXPECT_TRUE(error.contains(home.path()));
}

TEST(PropertyListTest, ReadFileReportsAFileWithoutReadPermissionAsUnreadable)
{
    TemporaryHome home;
    const QString path = home.writeFile("locked.plist", xmlDocument("<dict/>"));
    QFile::setPermissions(path, QFileDevice::Permissions());
    if (QFile file(path); file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "running as root: file permissions do not stop reads here";

    PropertyList::Status status = PropertyList::Status::Ok;
    QString error;
    EXPECT_FALSE(PropertyList::readFile(path, &status, &error).isValid());
    EXPECT_EQ(status, PropertyList::Status::Unreadable);
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
}

TEST(PropertyListTest, AWriteThatFailsHalfwayLeavesThePreviousFileWhole)
{
    TemporaryHome home;
    const QString path = home.configHome() + "/prefs.plist";
    const QVariantMap previous {{"version", qint64(1)}};
    ASSERT_TRUE(PropertyList::writeXmlFile(path, previous));
    const QByteArray previousBytes = readAll(path);

    // Larger than the limit, so the temporary copy is cut off part-way.
    const QVariantMap next {{"version", qint64(2)}, {"padding", QByteArray(64 * 1024, 'x')}};
    bool written = true;
    QString error;
    {
        const FileSizeLimit limit(8 * 1024);
        written = PropertyList::writeXmlFile(path, next, &error);
    }
    EXPECT_FALSE(written);
    EXPECT_TRUE(error.contains(path)) << error.toStdString();
    EXPECT_EQ(readAll(path), previousBytes);
    EXPECT_EQ(PropertyList::readFile(path), QVariant(previous));
    EXPECT_EQ(QDir(home.configHome()).entryList(QDir::Files | QDir::Hidden), QStringList {"prefs.plist"});

    ASSERT_TRUE(PropertyList::writeXmlFile(path, next, &error)) << error.toStdString();
    EXPECT_EQ(PropertyList::readFile(path), QVariant(next));
}
