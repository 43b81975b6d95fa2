#pragma once

#include "Trash.h"

// The Trash folders of the freedesktop specification on the mounted volumes.
class FreedesktopTrash : public Trash
{
public:
    QStringList trashFolders() const override;

    // "$XDG_DATA_HOME/Trash".
    static QString homeTrash();
    // The mount points of real file systems, leaving out pseudo ones.
    static QStringList volumeRoots();
};
