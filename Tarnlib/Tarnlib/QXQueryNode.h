#pragma once

#include <QDateTime>
#include <QList>
#include <QString>
#include <QVariant>

#include <memory>

// One node of a parsed metadata query: a combination of nodes, a
// comparison of an attribute with a value, a range test, or a constant.
struct QXQueryNode
{
    enum class Kind { And, Or, Not, Comparison, InRange, Constant };
    enum class Operator { Equal, NotEqual, Less, Greater, LessOrEqual, GreaterOrEqual };

    Kind kind = Kind::Constant;
    // And and Or hold two or more operands, Not one.
    QList<std::shared_ptr<const QXQueryNode>> operands;
    // "*" stands for every text attribute.
    QString attribute;
    Operator op = Operator::Equal;
    // A QString, a double or a QDateTime; InRange uses both bounds.
    QVariant value;
    QVariant upperValue;
    bool caseInsensitive = false;
    bool diacriticInsensitive = false;
    bool wordBased = false;
    bool constant = false;
};
