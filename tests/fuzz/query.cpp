#include "FuzzApplication.h"
#include "Tarnlib/Tarnlib/QXMetadataItem.h"
#include "Tarnlib/Tarnlib/QXQueryEvaluator.h"
#include "Tarnlib/Tarnlib/QXQueryParser.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// The query of a saved search, parsed and then evaluated against a text
// file, a folder and a missing path.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static QTemporaryDir folder;
    static const QStringList paths = [] {
        const QString text = folder.filePath(QStringLiteral("Report 2024.txt"));
        QFile file(text);
        if (file.open(QIODevice::WriteOnly))
            file.write("quarterly figures\nEICAR\n");
        file.close();
        const QString sub = folder.filePath(QStringLiteral("Sub Folder"));
        QDir().mkpath(sub);
        return QStringList{text, sub, folder.filePath(QStringLiteral("missing"))};
    }();

    QXQueryParser parser(QDateTime::fromSecsSinceEpoch(1700000000));
    const auto tree = parser.parse(QString::fromUtf8(fuzzInput(data, size)));
    if (!tree)
        return 0;
    const QXQueryEvaluator evaluator(tree);
    for (const QString &path : paths) {
        QXMetadataItem item(path);
        evaluator.matches(item);
    }
    return 0;
}
