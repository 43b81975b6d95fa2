#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// The current user's Trash, by the freedesktop Trash specification: the
// home Trash and, on every mounted volume, "$topdir/.Trash/$uid" and
// "$topdir/.Trash-$uid". Never another user's.
class Trash
{
public:
    virtual ~Trash() = default;

    static Trash *sharedTrash();
    // Tests install their own; nullptr returns to the real one.
    static void setSharedTrash(Trash *trash);

    // Every Trash folder of the current user that a file could be in, the
    // home Trash first, then one or two per mounted volume. Folders are
    // named whether or not they exist yet; nothing is created. A volume's
    // "$topdir/.Trash/$uid" is named only when "$topdir/.Trash" is a sticky
    // folder and no symbolic link, as freedesktop.org requires.
    virtual QStringList trashFolders() const = 0;

    // Moves a file or folder into the current user's Trash for its volume
    // and answers its new path inside that Trash's files/ folder. On failure
    // answers an empty string, sets *error, and the file stays where it was.
    // aboutToMove hears the name in the Trash before the file is moved
    // there; when it answers false the file is not moved.
    using TargetCheck = std::function<bool(const QString &target)>;
    virtual QString moveToTrash(const QString &path, QString *error, const TargetCheck &aboutToMove = {}) = 0;
    // After a trashed file was taken out again by hand: drops its record in
    // the Trash. Paths outside a Trash's files/ folder are left alone.
    virtual void forgetTrashedFile(const QString &pathInTrash) = 0;
};
