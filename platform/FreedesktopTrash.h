#pragma once

#include "Trash.h"

// The Trash folders of the freedesktop specification on the mounted volumes.
class FreedesktopTrash : public Trash
{
public:
    QStringList trashFolders() const override;
    QString moveToTrash(const QString &path, QString *error, const TargetCheck &aboutToMove = {}) override;
    void forgetTrashedFile(const QString &pathInTrash) override;

    // "$XDG_DATA_HOME/Trash".
    static QString homeTrash();
    // The mount points of real file systems, leaving out pseudo ones.
    static QStringList volumeRoots();
    // The name a trashed file gets in files/ when its own name is taken:
    // "invoice.pdf" becomes "invoice.2.pdf", "README" becomes "README.2".
    static QString numberedName(const QString &name, int number);
};
