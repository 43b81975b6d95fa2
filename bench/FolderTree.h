#pragma once

#include <QList>
#include <QString>

// Trees of folders to watch, empty but for the leaves' files where asked. Each folder is made relative to its
// parent's descriptor, so a chain a thousand deep costs no long paths.
class FolderTree
{
public:
    // fanouts {100, 100, 10}: 100 folders in root, 100 in each of those, 10 in
    // each of those, and filesPerLeaf small files in each folder of the last
    // level. Answers the folders in the tree, root included; -1 when one could
    // not be made.
    static qint64 makeWide(const QString &root, const QList<int> &fanouts, int filesPerLeaf = 0);
    // chains folders in root, each the top of a chain depth folders long.
    static qint64 makeDeep(const QString &root, int chains, int depth);
    static bool remove(const QString &root);
};
