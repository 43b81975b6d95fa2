#pragma once

#include "InfectedItem.h"

#include <QList>
#include <QString>

#include <functional>

// Each move of a listed file is written here, and on the disk, before the
// file is moved. The list itself is saved a moment later, so a kill in
// between would leave a moved file whose row still points at its old place:
// at the next start the journal's moves are checked against where each
// file is and the rows put in line with it. Whatever was moved can then
// always be put back.
class FileActionJournal
{
public:
    explicit FileActionJournal(const QString &path);

    QString path() const { return _path; }

    enum class Action { Quarantine, Trash, PutBack };
    // Nothing in quarantine can be run, written or read by anyone else.
    static constexpr int quarantinedMode = 0400;
    // Records a move from before's "filePath" to after's, with the rows as
    // they will be either way. Answers an empty string, or why it could not
    // be recorded: the file must then not be moved.
    QString begin(Action action, const InfectedItem &before, const InfectedItem &after);
    // The Trash picks its own name: the target of the last move begun.
    QString retarget(const QString &to);

    // How much of the journal a list saved now covers. Moves run whole on
    // the main thread, so every move recorded by then is in the rows.
    qint64 mark() const;
    // After the rows saved at mark() are on the disk, their moves are
    // forgotten; moves recorded since are kept.
    void forgetUpTo(qint64 mark);

    // Puts rows in line with where each recorded move left its file, and
    // cleans up what a move cut short left behind. Answers how many rows
    // it changed or added.
    int reconcile(QList<InfectedItem> *rows) const;

    // Tests that kill the agent hear each step of a move as it is done.
    using StepObserver = std::function<void(const char *step)>;
    static void setStepObserver(StepObserver observer);
    static void step(const char *name);

private:
    QString _path;
};
