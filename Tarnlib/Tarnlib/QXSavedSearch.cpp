#include "QXSavedSearch.h"

#include "QXMetadataItem.h"
#include "QXQueryEvaluator.h"
#include "QXQueryParser.h"
#include "platform/PropertyList.h"
#include "platform/UserFolders.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QUrl>
#include <QVariantMap>

namespace {

QStringList stringList(const QVariant &value)
{
    if (value.typeId() == QMetaType::QString)
        return {value.toString()};
    if (value.typeId() != QMetaType::QVariantList)
        return {};
    QStringList strings;
    for (const QVariant &entry : value.toList()) {
        if (entry.typeId() == QMetaType::QString)
            strings << entry.toString();
    }
    return strings;
}

// Kernel and device trees hold no user files and some never end.
bool isPseudoFileSystem(const QString &path)
{
    static const QStringList pseudo{QStringLiteral("/proc"), QStringLiteral("/sys"), QStringLiteral("/dev"),
                                    QStringLiteral("/run")};
    return pseudo.contains(path);
}

} // namespace

QXSavedSearch::QXSavedSearch(const QString &path)
{
    PropertyList::Status status = PropertyList::Status::Ok;
    QString error;
    // The file may come from anyone who can write to a watched folder.
    const QVariant contents = PropertyList::readUntrustedFile(path, fileSizeLimit, &status, &error);
    if (contents.typeId() != QMetaType::QVariantMap) {
        _problem = error.isEmpty() ? path + QStringLiteral(": not a dictionary") : error;
        return;
    }
    const QVariantMap top = contents.toMap();
    const QVariantMap raw = top.value(QStringLiteral("RawQueryDict")).toMap();
    QVariant query = raw.value(QStringLiteral("RawQuery"));
    QVariant scopes = raw.value(QStringLiteral("SearchScopes"));
    if (!query.isValid() || !scopes.isValid()) {
        query = top.value(QStringLiteral("RawQuery"));
        scopes = top.value(QStringLiteral("SearchCriteria")).toMap().value(QStringLiteral("CurrentFolderPath"));
    }
    _query = query.typeId() == QMetaType::QString ? query.toString() : QString();
    _scopes = stringList(scopes);
    _usable = !_query.isEmpty() && !_scopes.isEmpty();
    if (!_usable)
        _problem = path + QStringLiteral(": no query and search scopes");
}

QString QXSavedSearch::folderForScope(const QString &scope)
{
    if (scope == QLatin1String("kMDQueryScopeHome") || scope == QLatin1String("kMDQueryScopeHomeIndexed"))
        return UserFolders::home();
    if (scope == QLatin1String("kMDQueryScopeComputer") || scope == QLatin1String("kMDQueryScopeComputerIndexed"))
        return QStringLiteral("/");
    if (scope.startsWith(QLatin1String("file:")))
        return QUrl(scope).toLocalFile();
    if (scope.startsWith(QLatin1Char('/')) || scope.startsWith(QLatin1Char('~')))
        return QDir::cleanPath(UserFolders::expandTilde(scope));
    // Network scopes and others have no folder here.
    return QString();
}

QStringList QXSavedSearch::expand(qsizetype entryLimit, const QDateTime &now)
{
    _gaveUp = false;
    _visited = 0;
    if (!_usable)
        return {};
    QXQueryParser parser(now);
    const std::shared_ptr<const QXQueryNode> tree = parser.parse(_query);
    if (!tree) {
        _problem = QStringLiteral("query \"%1\": %2").arg(_query, parser.errorString());
        return {};
    }
    const QXQueryEvaluator evaluator(tree);

    QStringList found;
    QSet<QString> seen;
    const auto visit = [&](const QString &path) {
        if (seen.contains(path))
            return;
        seen.insert(path);
        QXMetadataItem item(path);
        if (evaluator.matches(item))
            found << path;
    };
    for (const QString &scope : _scopes) {
        const QString root = folderForScope(scope);
        if (root.isEmpty() || !QFileInfo(root).isDir())
            continue;
        // A folder's entries in name order, then its subfolders in the same
        // order; links are not followed.
        QStringList pending{root};
        while (!pending.isEmpty()) {
            const QString folder = pending.takeLast();
            const QFileInfoList entries = QDir(folder).entryInfoList(
                QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
            QStringList subfolders;
            for (const QFileInfo &entry : entries) {
                if (++_visited > entryLimit) {
                    _gaveUp = true;
                    return found;
                }
                const QString path = entry.absoluteFilePath();
                visit(path);
                if (entry.isDir() && !entry.isSymLink() && !isPseudoFileSystem(path))
                    subfolders.prepend(path);
            }
            pending << subfolders;
        }
    }
    return found;
}
