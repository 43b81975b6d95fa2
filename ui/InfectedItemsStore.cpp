#include "InfectedItemsStore.h"

#include "InfectedFileActions.h"
#include "QXTInfectedViewArrayController.h"
#include "platform/SystemLog.h"
#include "platform/UserFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace {

const QStringList requiredKeys{QStringLiteral("fileName"), QStringLiteral("infectionName"), QStringLiteral("status"),
                               QStringLiteral("filePath")};

QStringList storedKeys()
{
    return requiredKeys + QStringList{QStringLiteral("originalFilePath"), InfectedFileActions::fileModeKey};
}

// Answers an empty string when the document is a list of rows, else what is wrong with it.
QString rowsFrom(const QJsonDocument &document, QList<InfectedItem> *rows)
{
    const QJsonValue items = document.object().value(QStringLiteral("items"));
    if (!document.isObject() || !items.isArray())
        return QStringLiteral("no \"items\" list");
    for (const QJsonValue &value : items.toArray()) {
        const QJsonObject object = value.toObject();
        InfectedItem row;
        for (const QString &key : storedKeys()) {
            const QJsonValue field = object.value(key);
            if (field.isUndefined() && !requiredKeys.contains(key))
                continue;
            if (!field.isString())
                return QStringLiteral("row %1 has no text for \"%2\"").arg(rows->size() + 1).arg(key);
            row.insert(key, field.toString());
        }
        rows->append(row);
    }
    return {};
}

} // namespace

InfectedItemsStore::InfectedItemsStore(QXTInfectedViewArrayController *list, const QString &path, QObject *parent)
    : QObject(parent)
    , _list(list)
    , _path(path)
{
    for (const InfectedItem &item : read())
        _list->addObject(item);
    connect(_list, &QAbstractItemModel::rowsInserted, this, &InfectedItemsStore::save);
    connect(_list, &QAbstractItemModel::rowsRemoved, this, &InfectedItemsStore::save);
    connect(_list, &QAbstractItemModel::dataChanged, this, &InfectedItemsStore::save);
    connect(_list, &QAbstractItemModel::modelReset, this, &InfectedItemsStore::save);
}

QString InfectedItemsStore::defaultPath()
{
    return UserFolders::logs() + QStringLiteral("/infected-items.json");
}

QList<InfectedItem> InfectedItemsStore::read()
{
    QFile file(_path);
    if (!file.exists())
        return {};
    QList<InfectedItem> rows;
    QString problem;
    if (file.open(QIODevice::ReadOnly)) {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
        problem = parseError.error == QJsonParseError::NoError ? rowsFrom(document, &rows) : parseError.errorString();
        file.close();
    } else {
        problem = file.errorString();
    }
    if (problem.isEmpty())
        return rows;

    QString aside = _path + QStringLiteral(".malformed");
    for (int number = 2; QFileInfo::exists(aside); ++number)
        aside = _path + QStringLiteral(".malformed-%1").arg(number);
    if (QFile::rename(_path, aside))
        SystemLog::log(QStringLiteral("the infected items list %1 cannot be read (%2); kept as %3, starting with an "
                                      "empty list")
                           .arg(_path, problem, aside));
    else
        SystemLog::log(QStringLiteral("the infected items list %1 cannot be read (%2) and could not be kept aside; "
                                      "starting with an empty list")
                           .arg(_path, problem));
    return {};
}

bool InfectedItemsStore::write(const QList<InfectedItem> &items)
{
    QJsonArray rows;
    for (const InfectedItem &item : items) {
        QJsonObject row;
        for (const QString &key : storedKeys()) {
            if (item.contains(key))
                row.insert(key, item.value(key).toString());
        }
        rows.append(row);
    }
    const QByteArray json = QJsonDocument(QJsonObject{{QStringLiteral("items"), rows}}).toJson();

    QDir().mkpath(QFileInfo(_path).path());
    QSaveFile file(_path);
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size() || !file.commit()) {
        SystemLog::log(QStringLiteral("cannot save the infected items list to %1: %2").arg(_path, file.errorString()));
        return false;
    }
    return true;
}

void InfectedItemsStore::save()
{
    write(_list->arrangedObjects());
}
