#include "InfectedItemsStore.h"

#include "InfectedFileActions.h"
#include "QXTInfectedViewArrayController.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/UserNotificationCenter.h"
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
    return requiredKeys
           + QStringList{QStringLiteral("originalFilePath"), InfectedFileActions::fileModeKey,
                         InfectedFileActions::fileSizeKey, InfectedFileActions::fileSha256Key};
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

namespace {

// Gathers a burst into one write; also the pause before trying a failed one again.
constexpr int saveDelayMs = 1000;
constexpr int retryDelayMs = 2000;

} // namespace

InfectedItemsStore::InfectedItemsStore(QXTInfectedViewArrayController *list, const QString &path, QObject *parent)
    : QObject(parent)
    , _list(list)
    , _path(path)
    , _journal(QFileInfo(path).path() + QLatin1Char('/') + QFileInfo(path).completeBaseName()
               + QStringLiteral(".journal"))
{
    _writer.setMaxThreadCount(1);
    _delay.setSingleShot(true);
    connect(&_delay, &QTimer::timeout, this, &InfectedItemsStore::saveInBackground);
    QList<InfectedItem> rows = read();
    if (QFileInfo::exists(_journal.path())) {
        if (const int changed = _journal.reconcile(&rows))
            SystemLog::log(QStringLiteral("%1 rows of the infected items list were put in line with where their files "
                                          "are, after the agent was stopped during a move")
                               .arg(changed));
        const QString problem = write(rows);
        if (problem.isEmpty())
            _journal.forgetUpTo(_journal.mark());
        else
            SystemLog::log(problem);
    }
    for (const InfectedItem &item : std::as_const(rows))
        _list->addObject(item);
    connect(_list, &QAbstractItemModel::rowsInserted, this, &InfectedItemsStore::changed);
    connect(_list, &QAbstractItemModel::rowsRemoved, this, &InfectedItemsStore::changed);
    connect(_list, &QAbstractItemModel::dataChanged, this, &InfectedItemsStore::changed);
    connect(_list, &QAbstractItemModel::modelReset, this, &InfectedItemsStore::changed);
}

InfectedItemsStore::~InfectedItemsStore()
{
    flush();
}

void InfectedItemsStore::flush()
{
    _writer.waitForDone();
    // Whether that last write worked is not heard yet: write again.
    if (_writing)
        _dirty = true;
    _writing = false;
    if (!_dirty || !_list)
        return;
    _delay.stop();
    _dirty = false;
    const qint64 mark = _journal.mark();
    const QString problem = write(_list->arrangedObjects());
    if (problem.isEmpty())
        _journal.forgetUpTo(mark);
    else
        SystemLog::log(problem);
}

void InfectedItemsStore::changed()
{
    _dirty = true;
    // Not restarted by each change: a steady stream is still saved every second.
    if (!_writing && !_delay.isActive())
        _delay.start(saveDelayMs);
}

void InfectedItemsStore::saveInBackground()
{
    if (_writing || !_dirty)
        return;
    _dirty = false;
    _writing = true;
    // The rows are shared, not copied, until the list changes them.
    const QList<InfectedItem> items = _list->arrangedObjects();
    const qint64 mark = _journal.mark();
    _writer.start([this, items, mark] {
        const QString problem = write(items);
        if (problem.isEmpty())
            FileActionJournal::step("saved");
        QMetaObject::invokeMethod(
            this, [this, problem, mark] { saved(problem, mark); }, Qt::QueuedConnection);
    });
}

void InfectedItemsStore::saved(const QString &problem, qint64 journalMark)
{
    if (!_writing)
        return; // flush() has written since
    _writing = false;
    if (problem.isEmpty()) {
        _journal.forgetUpTo(journalMark);
        if (_userTold)
            SystemLog::log(QStringLiteral("the infected items list is saved again to %1").arg(_path));
        _userTold = false;
        if (_dirty)
            _delay.start(saveDelayMs);
        return;
    }
    _dirty = true;
    _delay.start(retryDelayMs);
    if (_userTold)
        return;
    _userTold = true;
    SystemLog::log(problem);
    QString message = Localization::text("INFECTED_LIST_NOT_SAVED_MESSAGE");
    message.replace(message.indexOf(QLatin1String("%@")), 2, _path);
    message.replace(message.indexOf(QLatin1String("%@")), 2, problem.mid(problem.lastIndexOf(QLatin1String(": ")) + 2));
    UserNotificationCenter::defaultCenter()->deliverNotification(Localization::text("INFECTED_LIST_NOT_SAVED"),
                                                                 message);
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

QString InfectedItemsStore::write(const QList<InfectedItem> &items) const
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
    // Unbuffered: a full disk then shows at the write, which a buffered
    // commit may miss and leave an empty list in place.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) || file.write(json) != json.size() || !file.commit())
        return QStringLiteral("cannot save the infected items list to %1: %2").arg(_path, file.errorString());
    return {};
}
