#include "PropertyList.h"

#include "RegularFile.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace {

struct NodeDeleter
{
    void operator()(void *node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct MallocDeleter
{
    void operator()(void *memory) const { std::free(memory); }
};
using Malloced = std::unique_ptr<void, MallocDeleter>;

struct XmlBuffer
{
    char *text = nullptr;
    uint32_t length = 0;
    ~XmlBuffer()
    {
        if (text)
            plist_to_xml_free(text);
    }
};

void fail(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

// Property-list dates count seconds from 2001-01-01T00:00:00Z.
const QDateTime &referenceDate()
{
    static const QDateTime date(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return date;
}

QByteArray xmlOf(plist_t node)
{
    XmlBuffer xml;
    plist_to_xml(node, &xml.text, &xml.length);
    return xml.text ? QByteArray(xml.text, xml.length) : QByteArray();
}

// Parses a one-value XML document with libplist's own parser: the only public
// way to make the nodes its constructors cannot (wide unsigned integers,
// dates beyond the int32 seconds of plist_new_date).
plist_t nodeFromXml(const QByteArray &element)
{
    const QByteArray xml = "<plist version=\"1.0\">" + element + "</plist>";
    plist_t node = nullptr;
    plist_from_xml(xml.constData(), uint32_t(xml.size()), &node);
    return node;
}

QVariant dateFromNode(plist_t node, QString *error)
{
    int32_t seconds = 0;
    int32_t micros = 0;
    plist_get_date_val(node, &seconds, &micros);
    if (seconds != std::numeric_limits<int32_t>::min() && seconds != std::numeric_limits<int32_t>::max()) {
        // Before the reference date libplist hands out the fraction without its sign.
        const qint64 fraction = micros / 1000;
        return referenceDate().addMSecs(qint64(seconds) * 1000 + (seconds < 0 ? -fraction : fraction));
    }
    // libplist stores a double but clamps it to int32 seconds on the way out
    // (before 1933, after 2068); its XML text still has the true date.
    Node copy(plist_copy(node));
    const QByteArray xml = xmlOf(copy.get());
    const qsizetype start = xml.indexOf("<date>");
    const qsizetype end = xml.indexOf("</date>");
    if (start >= 0 && end > start) {
        const QString text = QString::fromLatin1(xml.mid(start + 6, end - start - 6));
        const QDateTime date = QDateTime::fromString(text, Qt::ISODate);
        if (date.isValid())
            return date.toUTC();
    }
    fail(error, QStringLiteral("unreadable date"));
    return {};
}

// Reads a big-endian unsigned number of size bytes at offset, if all are there.
std::optional<quint64> bigEndian(const QByteArray &data, quint64 offset, quint64 size)
{
    if (size < 1 || size > 8 || offset > quint64(data.size()) || size > quint64(data.size()) - offset)
        return std::nullopt;
    quint64 value = 0;
    for (quint64 i = 0; i < size; ++i)
        value = value << 8 | quint8(data.at(qsizetype(offset + i)));
    return value;
}

// libplist ends the whole program on an assertion when it hands out a
// dictionary key holding U+0000, which a binary list can spell in UTF-16.
// Such keys are found in the list's own tables before libplist is asked.
bool binaryKeyHoldsNul(const QByteArray &data)
{
    constexpr qsizetype trailerSize = 32;
    if (!data.startsWith("bplist") || data.size() < 8 + trailerSize)
        return false;
    const quint64 trailer = quint64(data.size() - trailerSize);
    const quint64 offsetSize = quint8(data.at(qsizetype(trailer + 6)));
    const quint64 refSize = quint8(data.at(qsizetype(trailer + 7)));
    const quint64 count = bigEndian(data, trailer + 8, 8).value_or(0);
    const quint64 offsetTable = bigEndian(data, trailer + 24, 8).value_or(0);
    // Every object takes at least a byte: a larger count is no list libplist read.
    if (count > quint64(data.size()))
        return false;
    const auto objectAt = [&](quint64 index) -> std::optional<quint64> {
        if (index >= count)
            return std::nullopt;
        return bigEndian(data, offsetTable + index * offsetSize, offsetSize);
    };
    // The length a marker byte gives and where the object's contents start.
    const auto lengthAt = [&](quint64 at, quint64 &start) -> std::optional<quint64> {
        const quint8 marker = quint8(data.at(qsizetype(at)));
        if ((marker & 0x0f) != 0x0f) {
            start = at + 1;
            return marker & 0x0f;
        }
        const auto sizeMarker = bigEndian(data, at + 1, 1);
        if (!sizeMarker || (*sizeMarker & 0xf0) != 0x10 || (*sizeMarker & 0x0f) > 3)
            return std::nullopt;
        const quint64 size = quint64(1) << (*sizeMarker & 0x0f);
        start = at + 2 + size;
        return bigEndian(data, at + 2, size);
    };
    // Keys shared by many dictionaries are looked at once.
    std::vector<bool> checked(size_t(count), false);
    for (quint64 index = 0; index < count; ++index) {
        const auto dict = objectAt(index);
        quint64 refs = 0;
        if (!dict || *dict >= quint64(data.size()) || (quint8(data.at(qsizetype(*dict))) & 0xf0) != 0xd0)
            continue;
        const auto keys = lengthAt(*dict, refs);
        for (quint64 k = 0; keys && k < *keys; ++k) {
            const auto keyIndex = bigEndian(data, refs + k * refSize, refSize);
            if (!keyIndex)
                break;
            if (*keyIndex >= count || checked[size_t(*keyIndex)])
                continue;
            checked[size_t(*keyIndex)] = true;
            const auto key = objectAt(*keyIndex);
            quint64 text = 0;
            if (!key || *key >= quint64(data.size()) || (quint8(data.at(qsizetype(*key))) & 0xf0) != 0x60)
                continue;
            const auto units = lengthAt(*key, text);
            for (quint64 u = 0; units && u < *units; ++u) {
                const auto unit = bigEndian(data, text + 2 * u, 2);
                if (!unit)
                    break;
                if (*unit == 0)
                    return true;
            }
        }
    }
    return false;
}

QVariant fromNode(plist_t node, QString *error, int depth = 0)
{
    if (depth > PropertyList::nestingLimit) {
        fail(error, QStringLiteral("nested deeper than %1 levels").arg(PropertyList::nestingLimit));
        return {};
    }
    switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        const Malloced iteratorGuard(iterator);
        for (;;) {
            char *key = nullptr;
            plist_t child = nullptr;
            plist_dict_next_item(node, iterator, &key, &child);
            const Malloced keyGuard(key);
            if (!child)
                return map;
            const QVariant value = fromNode(child, error, depth + 1);
            if (!value.isValid())
                return {};
            map.insert(QString::fromUtf8(key), value);
        }
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t size = plist_array_get_size(node);
        list.reserve(size);
        for (uint32_t i = 0; i < size; ++i) {
            const QVariant value = fromNode(plist_array_get_item(node, i), error, depth + 1);
            if (!value.isValid())
                return {};
            list.append(value);
        }
        return list;
    }
    case PLIST_BOOLEAN: {
        uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return bool(flag);
    }
    case PLIST_UINT: {
        uint64_t raw = 0;
        plist_get_uint_val(node, &raw);
        if (raw <= uint64_t(std::numeric_limits<qint64>::max()))
            return qint64(raw);
        // These bits are a negative number or an unsigned one above INT64_MAX.
        // libplist marks the unsigned ones with a wider size, and its
        // comparison looks at that size: a plain node of the same bits
        // matches only the negative kind.
        const Node plain(plist_new_uint(raw));
        if (plist_compare_node_value(node, plain.get()))
            return qint64(raw);
        return quint64(raw);
    }
    case PLIST_REAL: {
        double real = 0;
        plist_get_real_val(node, &real);
        return real;
    }
    case PLIST_STRING: {
        uint64_t length = 0;
        const char *text = plist_get_string_ptr(node, &length);
        return QString::fromUtf8(text, qsizetype(length));
    }
    case PLIST_DATA: {
        uint64_t length = 0;
        const char *bytes = plist_get_data_ptr(node, &length);
        return QByteArray(bytes, qsizetype(length));
    }
    case PLIST_DATE:
        return dateFromNode(node, error);
    case PLIST_UID: {
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return qint64(uid);
    }
    default:
        fail(error, QStringLiteral("unexpected element of type %1").arg(int(plist_get_node_type(node))));
        return {};
    }
}

QString describe(const QVariant &value)
{
    return value.isValid() ? QString::fromLatin1(value.typeName()) : QStringLiteral("an empty value");
}

plist_t toNode(const QVariant &value, const QString &where, QString *error);

template <typename Map> plist_t dictFrom(const Map &map, const QString &where, QString *error)
{
    Node dict(plist_new_dict());
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        plist_t child = toNode(it.value(), where + QLatin1Char('/') + it.key(), error);
        if (!child)
            return nullptr;
        plist_dict_set_item(dict.get(), it.key().toUtf8().constData(), child);
    }
    return dict.release();
}

plist_t dateNode(const QDateTime &dateTime, const QString &where, QString *error)
{
    const QDateTime utc = dateTime.toUTC();
    // libplist writes the year unpadded, so only four-digit years read back.
    if (!utc.isValid() || utc.date().year() < 1000 || utc.date().year() > 9999) {
        fail(error, QStringLiteral("cannot store the date %1 in a property list (at %2)")
                        .arg(dateTime.toString(Qt::ISODate), where));
        return nullptr;
    }
    // XML keeps whole seconds; round down so that the text is the second the
    // instant falls in.
    const qint64 msecs = referenceDate().msecsTo(utc);
    const qint64 seconds = msecs / 1000 - (msecs % 1000 < 0 ? 1 : 0);
    if (seconds >= std::numeric_limits<int32_t>::min() && seconds <= std::numeric_limits<int32_t>::max())
        return plist_new_date(int32_t(seconds), 0);
    const QDateTime whole = referenceDate().addSecs(seconds);
    return nodeFromXml("<date>" + whole.toString(Qt::ISODate).toLatin1() + "</date>");
}

plist_t toNode(const QVariant &value, const QString &where, QString *error)
{
    switch (value.typeId()) {
    case QMetaType::QVariantMap:
        return dictFrom(value.toMap(), where, error);
    case QMetaType::QVariantHash:
        return dictFrom(value.toHash(), where, error);
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        const QVariantList list = value.toList();
        Node array(plist_new_array());
        for (qsizetype i = 0; i < list.size(); ++i) {
            plist_t child = toNode(list.at(i), where + QLatin1Char('/') + QString::number(i), error);
            if (!child)
                return nullptr;
            plist_array_append_item(array.get(), child);
        }
        return array.release();
    }
    case QMetaType::Bool:
        return plist_new_bool(value.toBool());
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        // libplist keeps integers as uint64 bits and writes them signed.
        return plist_new_uint(uint64_t(value.toLongLong()));
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong: {
        const quint64 number = value.toULongLong();
        if (number <= quint64(std::numeric_limits<qint64>::max()))
            return plist_new_uint(number);
        return nodeFromXml("<integer>" + QByteArray::number(number) + "</integer>");
    }
    case QMetaType::Float:
    case QMetaType::Double:
        return plist_new_real(value.toDouble());
    case QMetaType::QString:
        return plist_new_string(value.toString().toUtf8().constData());
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return plist_new_data(bytes.constData(), uint64_t(bytes.size()));
    }
    case QMetaType::QDateTime:
        return dateNode(value.toDateTime(), where, error);
    case QMetaType::QDate:
        return dateNode(QDateTime(value.toDate(), QTime(0, 0), Qt::UTC), where, error);
    default:
        fail(error, QStringLiteral("cannot store %1 in a property list (at %2)").arg(describe(value), where));
        return nullptr;
    }
}

} // namespace

QVariant PropertyList::fromData(const QByteArray &data, QString *error)
{
    if (data.isEmpty()) {
        fail(error, QStringLiteral("empty, not a property list"));
        return {};
    }
    if (quint64(data.size()) > std::numeric_limits<uint32_t>::max()) {
        fail(error, QStringLiteral("too large for a property list"));
        return {};
    }
    plist_t root = nullptr;
    plist_from_memory(data.constData(), uint32_t(data.size()), &root);
    if (!root) {
        fail(error, QStringLiteral("not a property list"));
        return {};
    }
    const Node guard(root);
    if (binaryKeyHoldsNul(data)) {
        fail(error, QStringLiteral("a dictionary key holds a NUL character"));
        return {};
    }
    return fromNode(root, error);
}

QVariant PropertyList::readFile(const QString &path, Status *status, QString *error)
{
    const auto answer = [&](Status result, const QString &reason) {
        if (status)
            *status = result;
        if (!reason.isEmpty())
            fail(error, path + QStringLiteral(": ") + reason);
    };
    QFile file(path);
    if (!file.exists()) {
        answer(Status::Missing, QStringLiteral("no such file"));
        return {};
    }
    if (!file.open(QIODevice::ReadOnly)) {
        answer(Status::Unreadable, file.errorString());
        return {};
    }
    const QByteArray data = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        answer(Status::Unreadable, file.errorString());
        return {};
    }
    QString reason;
    const QVariant value = fromData(data, &reason);
    if (!value.isValid()) {
        answer(Status::Malformed, reason);
        return {};
    }
    answer(Status::Ok, QString());
    return value;
}

QVariant PropertyList::readUntrustedFile(const QString &path, qint64 sizeLimit, Status *status, QString *error)
{
    RegularFile::Status read = RegularFile::Status::Ok;
    QString reason;
    const std::optional<QByteArray> data = RegularFile::read(path, sizeLimit, &read, &reason);
    if (!data) {
        if (status)
            *status = read == RegularFile::Status::Missing ? Status::Missing : Status::Unreadable;
        fail(error, path + QStringLiteral(": ") + reason);
        return {};
    }
    const QVariant value = fromData(*data, &reason);
    if (status)
        *status = value.isValid() ? Status::Ok : Status::Malformed;
    if (!value.isValid())
        fail(error, path + QStringLiteral(": ") + reason);
    return value;
}

QByteArray PropertyList::toXml(const QVariant &value, QString *error)
{
    const Node root(toNode(value, QStringLiteral("/"), error));
    if (!root)
        return {};
    const QByteArray xml = xmlOf(root.get());
    if (xml.isEmpty())
        fail(error, QStringLiteral("libplist could not write the property list"));
    return xml;
}

bool PropertyList::writeXmlFile(const QString &path, const QVariant &value, QString *error)
{
    QString reason;
    const QByteArray xml = toXml(value, &reason);
    if (xml.isEmpty()) {
        fail(error, path + QStringLiteral(": ") + reason);
        return false;
    }
    // No direct-write fallback: if the temporary file cannot be made, fail
    // rather than truncate the real one.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        fail(error, path + QStringLiteral(": ") + file.errorString());
        return false;
    }
    if (file.write(xml) != xml.size()) {
        fail(error, path + QStringLiteral(": ") + file.errorString());
        file.cancelWriting();
        return false;
    }
    if (!file.commit()) {
        fail(error, path + QStringLiteral(": ") + file.errorString());
        return false;
    }
    return true;
}
