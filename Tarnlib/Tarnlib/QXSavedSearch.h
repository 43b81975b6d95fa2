#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>

// A saved search of the file manager: a property-list file holding a
// metadata query and the folders it searches. Expanding it walks those
// folders and answers the entries that match, in the order of the walk.
class QXSavedSearch
{
public:
    // How many entries one expansion looks at before it gives up.
    static constexpr qsizetype defaultEntryLimit = 200000;
    // A saved search is a small property list; anything larger is refused.
    static constexpr qint64 fileSizeLimit = 1024 * 1024;

    explicit QXSavedSearch(const QString &path);

    // False when the file gives no query and scope pair; problem() says why.
    bool isUsable() const { return _usable; }
    QString rawQuery() const { return _query; }
    QStringList searchScopes() const { return _scopes; }

    // The paths found, or an empty list with problem() set when the query
    // cannot be parsed. Stops after entryLimit entries, setting gaveUp().
    QStringList expand(qsizetype entryLimit = defaultEntryLimit, const QDateTime &now = QDateTime::currentDateTime());
    bool gaveUp() const { return _gaveUp; }
    qsizetype entriesVisited() const { return _visited; }
    QString problem() const { return _problem; }

    // The folders a scope names: "kMDQueryScopeHome", "kMDQueryScopeComputer",
    // their indexed forms, folder paths ("~" expanded) or file URLs.
    static QString folderForScope(const QString &scope);

private:
    QString _query;
    QStringList _scopes;
    bool _usable = false;
    bool _gaveUp = false;
    qsizetype _visited = 0;
    QString _problem;
};
