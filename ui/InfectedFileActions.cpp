#include "InfectedFileActions.h"

#include "QXTInfectedViewArrayController.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/AlertPresenter.h"
#include "platform/FileMove.h"
#include "platform/Localization.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"
#include "platform/Trash.h"
#include "platform/Workspace.h"

#include <QFileInfo>
#include <QTime>

#include <cerrno>

const QString InfectedFileActions::fileModeKey = QStringLiteral("fileMode");
const QString InfectedFileActions::fileSizeKey = QStringLiteral("fileSize");
const QString InfectedFileActions::fileSha256Key = QStringLiteral("fileSHA256");

namespace {

const QString filePathKey = QStringLiteral("filePath");
const QString originalFilePathKey = QStringLiteral("originalFilePath");
const QString statusKey = QStringLiteral("status");

// A name that only starts with a dot has no extension.
QString extensionOf(const QString &path)
{
    const QString name = QFileInfo(path).fileName();
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? name.mid(dot + 1) : QString();
}

} // namespace

InfectedFileActions::InfectedFileActions(QXTInfectedViewArrayController *list, QXUtils *utils,
                                         std::function<void(const QString &)> console, QObject *parent)
    : QObject(parent)
    , _list(list)
    , _utils(utils)
    , _console(std::move(console))
{}

int InfectedFileActions::checkIfLooksLikeMailAndPromptForFile(const QString &path)
{
    if (!_utils->checkIfPathLooksLikeEmail(path))
        return -1;
    const QString message = Localization::text("ARE_YOU_SURE").replace(QLatin1String("%@"), QFileInfo(path).fileName());
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {message, Localization::text("NO"), Localization::text("YES"), QString(), QString()});
    return answer == AlertPresenter::DefaultReturn ? 0 : 1;
}

bool InfectedFileActions::record(FileActionJournal::Action action, const InfectedItem &before,
                                 const InfectedItem &after)
{
    const QString problem = _journal ? _journal->begin(action, before, after) : QString();
    if (problem.isEmpty())
        return true;
    SystemLog::log(QStringLiteral("did not move %1: %2").arg(before.value(filePathKey).toString(), problem));
    SystemBeep::beep();
    return false;
}

void InfectedFileActions::deleteFile()
{
    for (int row : _list->selectionIndexes()) {
        const InfectedItem item = _list->arrangedObjects().value(row);
        const QString path = item.value(filePathKey).toString();
        if (_utils->isFileInTrash(path) || checkIfLooksLikeMailAndPromptForFile(path) == 0)
            continue;
        // A quarantined file sent on to the Trash comes back to quarantine
        // with the mode quarantine gave it.
        InfectedItem trashedItem = item;
        for (const QString &key : {fileModeKey, fileSizeKey, fileSha256Key})
            trashedItem.remove(key);
        trashedItem.insert(statusKey, Localization::text("TRASHED"));
        trashedItem.insert(originalFilePathKey, path);
        trashedItem.insert(filePathKey, QString());
        if (!record(FileActionJournal::Action::Trash, item, trashedItem))
            continue;
        QString error;
        const QString trashed = Trash::sharedTrash()->moveToTrash(
            path, &error, [this](const QString &target) { return !_journal || _journal->retarget(target).isEmpty(); });
        if (trashed.isEmpty()) {
            SystemLog::log(QStringLiteral("could not move %1 to the Trash: %2").arg(path, error));
            SystemBeep::beep();
            continue;
        }
        FileActionJournal::step("moved");
        trashedItem.insert(filePathKey, trashed);
        _list->replaceObjectAtRow(row, trashedItem);
        FileActionJournal::step("row");
    }
    _list->clearSelection();
}

void InfectedFileActions::quarantineFile()
{
    for (int row : _list->selectionIndexes())
        quarantineFileAtIndex(row);
    _list->clearSelection();
}

QString InfectedFileActions::stampedName(const QString &target, const QString &stamp, const QString &extension)
{
    if (extension.isEmpty())
        return target + QLatin1Char(' ') + stamp;
    return target.chopped(extension.size() + 1) + QLatin1Char(' ') + stamp + QLatin1Char('.') + extension;
}

bool InfectedFileActions::quarantineFileAtIndex(int row)
{
    if (row < 0 || row >= _list->rowCount())
        return false;
    InfectedItem item = _list->arrangedObjects().at(row);
    const QString path = item.value(filePathKey).toString();
    if (checkIfLooksLikeMailAndPromptForFile(path) == 0)
        return false;
    if (!item.value(statusKey).toString().isEmpty())
        return false;

    const QString folder = _utils->quarantineLocationForActions();
    if (folder.isEmpty()) {
        SystemLog::log(QStringLiteral("could not quarantine %1: no quarantine folder is set").arg(path));
        SystemBeep::beep();
        return false;
    }
    // What is put in quarantine is nobody else's business.
    if (const int error = FileMove::makePrivateFolder(folder)) {
        SystemLog::log(QStringLiteral("could not quarantine %1: cannot make %2: %3")
                           .arg(path, folder, FileMove::errorText(error)));
        SystemBeep::beep();
        return false;
    }
    QString target = folder + QLatin1Char('/') + QFileInfo(path).fileName();
    const QString stamp = QTime::currentTime().toString(QStringLiteral("HH.mm.ss"));
    // A stamp has a dot of its own: the extension is taken once, from the found name.
    const QString extension = extensionOf(target);
    while (FileMove::exists(target))
        target = stampedName(target, stamp, extension);

    // What put back needs is known, and on the disk, before the file moves.
    InfectedItem quarantined = item;
    const int mode = FileMove::regularFileMode(path);
    // Folders keep their bits: without them nobody could look inside.
    if (mode >= 0) {
        quarantined.insert(fileModeKey, QString::number(mode, 8));
        qint64 size = 0;
        const QString sum = FileMove::sha256(path, &size);
        if (!sum.isEmpty()) {
            quarantined.insert(fileSizeKey, QString::number(size));
            quarantined.insert(fileSha256Key, sum);
        }
    }
    quarantined.insert(statusKey, Localization::text("QUARANTINED"));
    quarantined.insert(originalFilePathKey, path);
    quarantined.insert(filePathKey, target);
    if (!record(FileActionJournal::Action::Quarantine, item, quarantined))
        return false;

    const int error = FileMove::moveOrCopyWithoutReplacing(path, target);
    if (error != 0) {
        SystemLog::log(
            QStringLiteral("could not quarantine %1 to %2: %3").arg(path, target, FileMove::errorText(error)));
        SystemBeep::beep();
        return false;
    }
    FileActionJournal::step("moved");
    if (mode >= 0 && !FileMove::setMode(target, FileActionJournal::quarantinedMode))
        SystemLog::log(QStringLiteral("could not make %1 read-only: %2").arg(target, FileMove::errorText(errno)));
    FileActionJournal::step("mode");
    _list->replaceObjectAtRow(row, quarantined);
    FileActionJournal::step("row");
    return true;
}

void InfectedFileActions::putBack()
{
    for (int row : _list->selectionIndexes()) {
        InfectedItem item = _list->arrangedObjects().value(row);
        const QString path = item.value(filePathKey).toString();
        const QString home = item.value(originalFilePathKey).toString();
        if (home.isEmpty() || home == path)
            continue;
        if (item.contains(fileSha256Key)) {
            qint64 size = -1;
            const QString sum = FileMove::sha256(path, &size);
            // One that cannot be read at all is for the move to report.
            const bool changed = sum != item.value(fileSha256Key).toString()
                                 || QString::number(size) != item.value(fileSizeKey).toString();
            if (!sum.isEmpty() && changed) {
                SystemBeep::beep();
                _console(QStringLiteral("File %1 was changed in quarantine (its size or SHA-256 is not what it was) "
                                        "and is not put back to %2.")
                             .arg(path, home));
                continue;
            }
        }
        InfectedItem putBackItem = item;
        putBackItem.insert(statusKey, QString(""));
        putBackItem.insert(filePathKey, home);
        putBackItem.insert(originalFilePathKey, QString(""));
        for (const QString &key : {fileModeKey, fileSizeKey, fileSha256Key})
            putBackItem.remove(key);
        int error = FileMove::exists(home) ? EEXIST : 0;
        if (error == 0) {
            if (!record(FileActionJournal::Action::PutBack, item, putBackItem))
                continue;
            error = FileMove::moveOrCopyWithoutReplacing(path, home);
        }
        if (error == EEXIST) {
            SystemBeep::beep();
            _console(QStringLiteral("File %1 cannot be put back to %2 as something already exists in that location.")
                         .arg(path, home));
            continue;
        }
        if (error != 0) {
            SystemLog::log(QStringLiteral("could not move %1 to %2: %3").arg(path, home, FileMove::errorText(error)));
            SystemBeep::beep();
            _console(QStringLiteral("Something prevented %1 from being put back to %2. Please investigate this and put "
                                    "the file back manually.")
                         .arg(path, home));
            continue;
        }
        FileActionJournal::step("moved");
        bool knownMode = false;
        const int mode = item.value(fileModeKey).toString().toInt(&knownMode, 8);
        if (knownMode && !FileMove::setMode(home, mode))
            SystemLog::log(QStringLiteral("could not give %1 back its mode %2: %3")
                               .arg(home, QString::number(mode, 8), FileMove::errorText(errno)));
        FileActionJournal::step("mode");
        Trash::sharedTrash()->forgetTrashedFile(path);
        _list->replaceObjectAtRow(row, putBackItem);
        FileActionJournal::step("row");
    }
}

void InfectedFileActions::revealInFinder()
{
    for (const InfectedItem &item : _list->selectedObjects())
        Workspace::sharedWorkspace()->selectFile(item.value(filePathKey).toString());
}
