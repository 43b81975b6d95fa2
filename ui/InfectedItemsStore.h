#pragma once

#include "FileActionJournal.h"
#include "InfectedItem.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThreadPool>
#include <QTimer>

class QXTInfectedViewArrayController;

// Keeps the infected-items list in a file, so that a file moved to the
// Trash or into quarantine can still be put back after a quit, a crash or a
// reboot. Changes are gathered and the whole file is written at most about
// once a second on a thread of its own, so a burst of detections does not
// hold up the window; the last change is written at destruction at the
// latest. A file that cannot be written is tried again, and the user is
// told once until it works again. Moves of listed files are journalled
// until the rows that show them are saved, and a journal left by a kill is
// applied at the start.
class InfectedItemsStore : public QObject
{
    Q_OBJECT
public:
    // Fills the list from the file, then follows its changes.
    explicit InfectedItemsStore(QXTInfectedViewArrayController *list, const QString &path = defaultPath(),
                                QObject *parent = nullptr);
    ~InfectedItemsStore() override;

    // "infected-items.json" in the folder of the scan logs.
    static QString defaultPath();
    QString path() const { return _path; }
    // "infected-items.journal" beside the list file.
    FileActionJournal *journal() { return &_journal; }

    // Rows as read from the file; a missing file is an empty list. A file
    // that cannot be read as a list is logged, renamed aside and read as
    // empty, so that the next save does not destroy it.
    QList<InfectedItem> read();
    // Answers an empty string when written, else why not. Any thread.
    QString write(const QList<InfectedItem> &items) const;
    // Writes what is not written yet, now, on this thread. Whoever deletes
    // the list before the store calls it first.
    void flush();

private:
    void changed();
    void saveInBackground();
    void saved(const QString &problem, qint64 journalMark);

    QPointer<QXTInfectedViewArrayController> _list;
    QString _path;
    FileActionJournal _journal;
    QTimer _delay;
    QThreadPool _writer;
    bool _dirty = false;
    bool _writing = false;
    bool _userTold = false;
};
