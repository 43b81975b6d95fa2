#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// Property lists (XML or binary) as Qt values: dictionaries are QVariantMap,
// arrays QVariantList, integers qint64 (quint64 above its range), reals
// double, booleans bool, strings QString, dates QDateTime (UTC), data
// QByteArray, uids qint64.
//
// XML dates carry whole seconds only (libplist drops fractions both ways);
// binary dates keep milliseconds.
class PropertyList
{
public:
    enum class Status { Ok, Missing, Unreadable, Malformed };

    // Parses XML or binary; on failure answers an invalid QVariant and, when
    // given, sets *error.
    static QVariant fromData(const QByteArray &data, QString *error = nullptr);
    // As fromData, from a file; *status tells a missing file from an
    // unreadable or malformed one, and *error names the path.
    static QVariant readFile(const QString &path, Status *status = nullptr, QString *error = nullptr);
    // As readFile, for a file someone else may have placed: only a regular
    // file of at most sizeLimit bytes is read (see RegularFile); anything
    // else is Unreadable.
    static QVariant readUntrustedFile(const QString &path, qint64 sizeLimit, Status *status = nullptr,
                                      QString *error = nullptr);

    // Deeper nesting is refused as malformed: no property list of ours comes
    // near it, and converting it would recurse without bound.
    static constexpr int nestingLimit = 128;

    // Serialises to an XML property list. Accepts maps (QVariantMap,
    // QVariantHash), lists (QVariantList, QStringList), integers, reals,
    // bool, QString, QDateTime, QDate (midnight UTC) and QByteArray; anything
    // else gives an empty array and *error.
    static QByteArray toXml(const QVariant &value, QString *error = nullptr);
    // Writes atomically (temporary file, then rename): a crash or a full disk
    // never leaves a half-written file, and the previous file stays whole.
    static bool writeXmlFile(const QString &path, const QVariant &value, QString *error = nullptr);
};
