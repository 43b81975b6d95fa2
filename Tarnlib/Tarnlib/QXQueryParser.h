#pragma once

#include "QXQueryNode.h"

#include <QDateTime>
#include <QString>

#include <memory>

// Parses the metadata query language that saved searches hold: comparisons
// ("==", "=", "!=", "<", ">", "<=", ">=") of an attribute, "*" or "**" with a
// quoted string (with the c, d and w modifiers and the wildcards "*" and
// "?"), a number (sign, decimals, exponent) or a "$time" form; "InRange(attribute, low, high)";
// "true" and "false"; "&&", "||", "!" and parentheses.
class QXQueryParser
{
public:
    // "$time" forms are resolved against now.
    explicit QXQueryParser(const QDateTime &now = QDateTime::currentDateTime());

    // Parentheses and "!" nested deeper than this are refused: no real
    // search comes near it, and a hostile one must not exhaust the stack.
    static constexpr int nestingLimit = 100;

    // The query's tree, or none with errorString() saying where it failed.
    std::shared_ptr<const QXQueryNode> parse(const QString &query);
    QString errorString() const { return _error; }

private:
    using Node = std::shared_ptr<QXQueryNode>;

    Node parseOr();
    Node parseAnd();
    Node parseNested(Node (QXQueryParser::*parse)());
    Node parseUnary();
    Node parsePrimary();
    Node parseComparison(const QString &attribute);
    Node parseInRange();
    bool parseValue(QXQueryNode &node, QVariant &value);
    bool parseTime(QVariant &value);
    QString parseIdentifier();
    bool parseNumber(double &number);
    void skipSpace();
    bool accept(QStringView token);
    bool atEnd() const { return _pos >= _text.size(); }
    Node fail(const QString &what);

    QDateTime _now;
    QString _text;
    qsizetype _pos = 0;
    int _depth = 0;
    QString _error;
};
