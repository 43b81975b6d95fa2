#pragma once

#include "QXQueryNode.h"

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
    static bool compare(const QXQueryNode &node, const QVariant &attribute);
    static bool compareOne(const QXQueryNode &node, const QVariant &attribute, QXQueryNode::Operator op,
                           const QVariant &value);
    static bool textMatches(const QXQueryNode &node, const QString &text, const QString &pattern);

    std::shared_ptr<const QXQueryNode> _query;
};
