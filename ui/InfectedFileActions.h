#pragma once

#include "FileActionJournal.h"
#include "InfectedItem.h"

#include <QObject>
#include <QString>

#include <functional>

class QXTInfectedViewArrayController;
class QXUtils;

// What the user does with the listed files: move them to the Trash or into
// the quarantine folder, put them back where they were found, or show them
// in the file viewer. A move to another file system is a checked copy; one
// that fails beeps and leaves the file and its row as they were. A
// quarantined file keeps only its owner's read permission.
class InfectedFileActions : public QObject
{
    Q_OBJECT
public:
    // console takes the messages of put back.
    InfectedFileActions(QXTInfectedViewArrayController *list, QXUtils *utils,
                        std::function<void(const QString &)> console, QObject *parent = nullptr);

    // Where each move is written before it is made; none in tests that do
    // not restart.
    void setJournal(FileActionJournal *journal) { _journal = journal; }

    void deleteFile();
    void quarantineFile();
    bool quarantineFileAtIndex(int row);
    void putBack();
    void revealInFinder();
    // -1 not in a mail store, 0 the user declined, 1 the user confirmed.
    int checkIfLooksLikeMailAndPromptForFile(const QString &path);

    // The row's key for the permission bits a quarantined file had, in
    // octal, so that put back can give them back.
    static const QString fileModeKey;
    // The size and SHA-256 a quarantined file had, so that put back can tell
    // a file that was changed in quarantine.
    static const QString fileSizeKey;
    static const QString fileSha256Key;
    // The quarantine name for a taken target: "invoice.pdf" at 14:03:27
    // becomes "invoice 14.03.27.pdf", and that one "invoice 14.03.27
    // 14.03.27.pdf". extension is that of the name the file was found by.
    static QString stampedName(const QString &target, const QString &stamp, const QString &extension);

private:
    // Answers whether the move may be made; one that cannot be recorded is not.
    bool record(FileActionJournal::Action action, const InfectedItem &before, const InfectedItem &after);

    QXTInfectedViewArrayController *_list;
    FileActionJournal *_journal = nullptr;
    QXUtils *_utils;
    std::function<void(const QString &)> _console;
};
