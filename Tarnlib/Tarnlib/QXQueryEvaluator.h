#pragma once

#include "QXQueryNode.h"

#include <QHash>
#include <QRegularExpression>
#include <QString>

class QXMetadataItem;

// Decides whether a file matches a parsed metadata query. A comparison with
// an attribute the file lacks is false, whatever its operator.
class QXQueryEvaluator
{
public:
    explicit QXQueryEvaluator(std::shared_ptr<const QXQueryNode> query);

    bool matches(const QString &path) const;
    bool matches(QXMetadataItem &item) const;

private:
    bool evaluate(const QXQueryNode &node, QXMetadataItem &item) const;
    bool compare(const QXQueryNode &node, const QVariant &attribute, QXQueryNode::Operator op) const;
    bool compareOne(const QXQueryNode &node, const QVariant &attribute, QXQueryNode::Operator op,
                    const QVariant &value) const;
    bool textMatches(const QXQueryNode &node, const QString &text) const;
    void compileExpressions(const QXQueryNode &node);

    std::shared_ptr<const QXQueryNode> _query;
    // The wildcard pattern of each string comparison, made once per query
    // rather than once per file.
    QHash<const QXQueryNode *, QRegularExpression> _expressions;
    QHash<QString, QRegularExpression> _compiled;
};
