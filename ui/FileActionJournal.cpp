#include "FileActionJournal.h"

#include "platform/FileMove.h"
#include "platform/Trash.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QSet>

namespace {

const QString filePathKey = QStringLiteral("filePath");
const QString modeKey = QStringLiteral("fileMode");

FileActionJournal::StepObserver &observer()
{
    static FileActionJournal::StepObserver shared;
    return shared;
}

struct Move
{
    FileActionJournal::Action action;
    InfectedItem before;
    InfectedItem after;
};

// Reads up to the first line that is not whole: a kill can only tear the
// last one, and the move it was about had not started.
QList<Move> movesIn(const QString &path)
{
    QFile file(path);
    QList<Move> moves;
    if (!file.open(QIODevice::ReadOnly))
        return moves;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QJsonObject entry = QJsonDocument::fromJson(line).object();
        if (entry.isEmpty())
            break;
        if (entry.contains(QStringLiteral("to"))) {
            if (!moves.isEmpty())
                moves.last().after.insert(filePathKey, entry.value(QStringLiteral("to")).toString());
            continue;
        }
        moves.append({FileActionJournal::Action(entry.value(QStringLiteral("action")).toInt()),
                      entry.value(QStringLiteral("before")).toObject().toVariantMap(),
                      entry.value(QStringLiteral("after")).toObject().toVariantMap()});
    }
    return moves;
}

bool sameFile(const QString &one, const QString &other)
{
    qint64 oneSize = -1;
    qint64 otherSize = -2;
    const QString sum = FileMove::sha256(one, &oneSize);
    return !sum.isEmpty() && sum == FileMove::sha256(other, &otherSize) && oneSize == otherSize;
}

// A copy to another file system that was cut short.
void removePartialCopiesIn(const QString &folder)
{
    QDir dir(folder);
    for (const QString &name : dir.entryList({QStringLiteral(".korvane-partial-*")}, QDir::Files | QDir::Hidden))
        dir.remove(name);
}

int rowOf(const QList<InfectedItem> &rows, const Move &move)
{
    for (int i = 0; i < rows.size(); ++i) {
        for (const InfectedItem *side : {&move.before, &move.after}) {
            if (rows[i].value(filePathKey) == side->value(filePathKey)
                && rows[i].value(QStringLiteral("status")) == side->value(QStringLiteral("status")))
                return i;
        }
    }
    return -1;
}

} // namespace

FileActionJournal::FileActionJournal(const QString &path)
    : _path(path)
{}

QString FileActionJournal::begin(Action action, const InfectedItem &before, const InfectedItem &after)
{
    const QJsonObject entry{{QStringLiteral("action"), int(action)},
                            {QStringLiteral("before"), QJsonObject::fromVariantMap(before)},
                            {QStringLiteral("after"), QJsonObject::fromVariantMap(after)}};
    QDir().mkpath(QFileInfo(_path).path());
    if (const int error = FileMove::appendDurably(_path, QJsonDocument(entry).toJson(QJsonDocument::Compact) + '\n'))
        return QStringLiteral("cannot record the move in %1: %2").arg(_path, FileMove::errorText(error));
    step("journal");
    return {};
}

QString FileActionJournal::retarget(const QString &to)
{
    const QJsonObject entry{{QStringLiteral("to"), to}};
    if (const int error = FileMove::appendDurably(_path, QJsonDocument(entry).toJson(QJsonDocument::Compact) + '\n'))
        return QStringLiteral("cannot record the move in %1: %2").arg(_path, FileMove::errorText(error));
    return {};
}

qint64 FileActionJournal::mark() const
{
    return QFileInfo(_path).size();
}

void FileActionJournal::forgetUpTo(qint64 mark)
{
    QFile file(_path);
    // Nothing covered: moves journalled since the rows were taken stay as they are.
    if (mark > 0 && file.open(QIODevice::ReadOnly)) {
        const QByteArray rest = file.readAll().mid(mark);
        file.close();
        if (rest.isEmpty()) {
            file.remove();
        } else {
            QSaveFile kept(_path);
            if (kept.open(QIODevice::WriteOnly) && kept.write(rest) == rest.size())
                kept.commit();
        }
    }
    step("dropped");
}

int FileActionJournal::reconcile(QList<InfectedItem> *rows) const
{
    int changed = 0;
    QSet<QString> targetFolders;
    for (const Move &move : movesIn(_path)) {
        const QString from = move.before.value(filePathKey).toString();
        const QString to = move.after.value(filePathKey).toString();
        if (from.isEmpty() || to.isEmpty())
            continue;
        bool atFrom = FileMove::exists(from);
        bool atTo = FileMove::exists(to);
        // Killed between placing a checked copy and removing the original:
        // the original stays, the copy goes.
        if (atFrom && atTo && sameFile(from, to)) {
            QFile::remove(to);
            atTo = false;
        }
        targetFolders.insert(QFileInfo(to).path());
        const bool moved = atTo && !atFrom;
        if (moved && move.action == Action::Quarantine && FileMove::regularFileMode(to) >= 0)
            FileMove::setMode(to, quarantinedMode);
        bool knownMode = false;
        const int mode = move.before.value(modeKey).toString().toInt(&knownMode, 8);
        if (moved && move.action == Action::PutBack) {
            if (knownMode)
                FileMove::setMode(to, mode);
            Trash::sharedTrash()->forgetTrashedFile(from);
        }
        // A record written before a move into the Trash that never came.
        if (!atTo)
            Trash::sharedTrash()->forgetTrashedFile(to);

        const InfectedItem &wanted = moved ? move.after : move.before;
        const int row = rowOf(*rows, move);
        if (row < 0)
            rows->append(wanted);
        else if ((*rows)[row] != wanted)
            (*rows)[row] = wanted;
        else
            continue;
        ++changed;
    }
    for (const QString &folder : std::as_const(targetFolders))
        removePartialCopiesIn(folder);
    return changed;
}

void FileActionJournal::setStepObserver(StepObserver stepObserver)
{
    observer() = std::move(stepObserver);
}

void FileActionJournal::step(const char *name)
{
    if (observer())
        observer()(name);
}
