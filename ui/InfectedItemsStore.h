#pragma once

#include "InfectedItem.h"

#include <QList>
#include <QObject>
#include <QString>

class QXTInfectedViewArrayController;

// Keeps the infected-items list in a file, so that a file moved to the
// Trash or into quarantine can still be put back after a quit, a crash or a
// reboot. The file is rewritten whole after every change of the list.
class InfectedItemsStore : public QObject
{
    Q_OBJECT
public:
    // Fills the list from the file, then follows its changes.
    explicit InfectedItemsStore(QXTInfectedViewArrayController *list, const QString &path = defaultPath(),
                                QObject *parent = nullptr);

    // "infected-items.json" in the folder of the scan logs.
    static QString defaultPath();
    QString path() const { return _path; }

    // Rows as read from the file; a missing file is an empty list. A file
    // that cannot be read as a list is logged, renamed aside and read as
    // empty, so that the next save does not destroy it.
    QList<InfectedItem> read();
    bool write(const QList<InfectedItem> &items);

private:
    void save();

    QXTInfectedViewArrayController *_list;
    QString _path;
};
