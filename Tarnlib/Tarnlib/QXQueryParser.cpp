#include "QXQueryParser.h"

#include <QLocale>

#include <cmath>

QXQueryParser::QXQueryParser(const QDateTime &now)
    : _now(now)
{}

std::shared_ptr<const QXQueryNode> QXQueryParser::parse(const QString &query)
{
    _text = query;
    _pos = 0;
    _depth = 0;
    _error.clear();
    Node root = parseOr();
    if (!root)
        return nullptr;
    skipSpace();
    if (!atEnd())
        return fail(QStringLiteral("unexpected text"));
    return root;
}

QXQueryParser::Node QXQueryParser::fail(const QString &what)
{
    if (_error.isEmpty())
        _error = QStringLiteral("%1 at character %2 of the query").arg(what).arg(_pos + 1);
    return nullptr;
}

void QXQueryParser::skipSpace()
{
    while (!atEnd() && _text.at(_pos).isSpace())
        ++_pos;
}

bool QXQueryParser::accept(QStringView token)
{
    skipSpace();
    if (QStringView(_text).mid(_pos).startsWith(token)) {
        _pos += token.size();
        return true;
    }
    return false;
}

// "a && b && c" becomes one node of three operands, not a chain as deep as
// it is long.
QXQueryParser::Node QXQueryParser::parseOr()
{
    Node left = parseAnd();
    if (!left)
        return nullptr;
    auto node = std::make_shared<QXQueryNode>();
    node->kind = QXQueryNode::Kind::Or;
    node->operands = {left};
    while (accept(u"||")) {
        Node right = parseAnd();
        if (!right)
            return nullptr;
        node->operands.append(right);
    }
    return node->operands.size() == 1 ? left : node;
}

QXQueryParser::Node QXQueryParser::parseAnd()
{
    Node left = parseUnary();
    if (!left)
        return nullptr;
    auto node = std::make_shared<QXQueryNode>();
    node->kind = QXQueryNode::Kind::And;
    node->operands = {left};
    while (accept(u"&&")) {
        Node right = parseUnary();
        if (!right)
            return nullptr;
        node->operands.append(right);
    }
    return node->operands.size() == 1 ? left : node;
}

QXQueryParser::Node QXQueryParser::parseNested(Node (QXQueryParser::*parse)())
{
    if (_depth >= nestingLimit)
        return fail(QStringLiteral("nested deeper than %1 levels").arg(nestingLimit));
    ++_depth;
    Node node = (this->*parse)();
    --_depth;
    return node;
}

QXQueryParser::Node QXQueryParser::parseUnary()
{
    skipSpace();
    // "!" that starts "!=" belongs to no operand.
    if (accept(u"!") && !QStringView(_text).mid(_pos).startsWith(u'=')) {
        Node operand = parseNested(&QXQueryParser::parseUnary);
        if (!operand)
            return nullptr;
        auto node = std::make_shared<QXQueryNode>();
        node->kind = QXQueryNode::Kind::Not;
        node->operands = {operand};
        return node;
    }
    return parsePrimary();
}

QXQueryParser::Node QXQueryParser::parsePrimary()
{
    skipSpace();
    if (atEnd())
        return fail(QStringLiteral("the query ends too early"));
    if (accept(u"(")) {
        Node inner = parseNested(&QXQueryParser::parseOr);
        if (!inner)
            return nullptr;
        if (!accept(u")"))
            return fail(QStringLiteral("missing \")\""));
        return inner;
    }
    // "**" also takes in the text content, which "*" here always does.
    if (accept(u"**") || accept(u"*"))
        return parseComparison(QStringLiteral("*"));
    const QString name = parseIdentifier();
    if (name.isEmpty())
        return fail(QStringLiteral("an attribute name is missing"));
    if (name == QLatin1String("true") || name == QLatin1String("false")) {
        auto node = std::make_shared<QXQueryNode>();
        node->constant = name == QLatin1String("true");
        return node;
    }
    if (name == QLatin1String("InRange"))
        return parseInRange();
    return parseComparison(name);
}

QString QXQueryParser::parseIdentifier()
{
    skipSpace();
    const qsizetype start = _pos;
    while (!atEnd() && (_text.at(_pos).isLetterOrNumber() || _text.at(_pos) == u'_' || _text.at(_pos) == u'.'))
        ++_pos;
    return _text.mid(start, _pos - start);
}

QXQueryParser::Node QXQueryParser::parseComparison(const QString &attribute)
{
    auto node = std::make_shared<QXQueryNode>();
    node->kind = QXQueryNode::Kind::Comparison;
    node->attribute = attribute;
    // Longer operators first, so that "<=" is not read as "<".
    static const std::pair<QStringView, QXQueryNode::Operator> operators[] = {
        {u"==", QXQueryNode::Operator::Equal},       {u"!=", QXQueryNode::Operator::NotEqual},
        {u"<=", QXQueryNode::Operator::LessOrEqual}, {u">=", QXQueryNode::Operator::GreaterOrEqual},
        {u"=", QXQueryNode::Operator::Equal},        {u"<", QXQueryNode::Operator::Less},
        {u">", QXQueryNode::Operator::Greater},
    };
    bool found = false;
    for (const auto &[token, op] : operators) {
        if (accept(token)) {
            node->op = op;
            found = true;
            break;
        }
    }
    if (!found)
        return fail(QStringLiteral("a comparison operator is missing"));
    if (!parseValue(*node, node->value))
        return nullptr;
    return node;
}

QXQueryParser::Node QXQueryParser::parseInRange()
{
    auto node = std::make_shared<QXQueryNode>();
    node->kind = QXQueryNode::Kind::InRange;
    if (!accept(u"("))
        return fail(QStringLiteral("\"(\" missing after InRange"));
    node->attribute = parseIdentifier();
    if (node->attribute.isEmpty())
        return fail(QStringLiteral("an attribute name is missing"));
    if (!accept(u",") || !parseValue(*node, node->value))
        return fail(QStringLiteral("InRange needs a lower bound"));
    if (!accept(u",") || !parseValue(*node, node->upperValue))
        return fail(QStringLiteral("InRange needs an upper bound"));
    if (!accept(u")"))
        return fail(QStringLiteral("missing \")\""));
    return node;
}

bool QXQueryParser::parseValue(QXQueryNode &node, QVariant &value)
{
    skipSpace();
    if (atEnd()) {
        fail(QStringLiteral("a value is missing"));
        return false;
    }
    const QChar quote = _text.at(_pos);
    if (quote == u'"' || quote == u'\'') {
        ++_pos;
        QString text;
        while (!atEnd() && _text.at(_pos) != quote) {
            // Keep the backslash before a wildcard so that it stays literal.
            if (_text.at(_pos) == u'\\' && _pos + 1 < _text.size()) {
                const QChar next = _text.at(_pos + 1);
                if (next == u'*' || next == u'?' || next == u'\\')
                    text += u'\\';
                text += next;
                _pos += 2;
                continue;
            }
            text += _text.at(_pos++);
        }
        if (atEnd()) {
            fail(QStringLiteral("a string is not closed"));
            return false;
        }
        ++_pos;
        while (!atEnd() && _text.at(_pos).isLetter()) {
            const QChar modifier = _text.at(_pos++);
            if (modifier == u'c')
                node.caseInsensitive = true;
            else if (modifier == u'd')
                node.diacriticInsensitive = true;
            else if (modifier == u'w')
                node.wordBased = true;
            else if (modifier != u't') {
                fail(QStringLiteral("unknown modifier \"%1\"").arg(modifier));
                return false;
            }
        }
        value = text;
        return true;
    }
    if (accept(u"$time."))
        return parseTime(value);
    double number = 0;
    if (parseNumber(number)) {
        value = number;
        return true;
    }
    fail(QStringLiteral("a value is missing"));
    return false;
}

bool QXQueryParser::parseNumber(double &number)
{
    skipSpace();
    const qsizetype start = _pos;
    const auto skip = [&](auto test) {
        while (!atEnd() && test(_text.at(_pos)))
            ++_pos;
    };
    const auto sign = [](QChar c) { return c == u'-' || c == u'+'; };
    if (!atEnd() && sign(_text.at(_pos)))
        ++_pos;
    skip([](QChar c) { return c.isDigit() || c == u'.'; });
    if (!atEnd() && (_text.at(_pos) == u'e' || _text.at(_pos) == u'E')) {
        ++_pos;
        if (!atEnd() && sign(_text.at(_pos)))
            ++_pos;
        skip([](QChar c) { return c.isDigit(); });
    }
    bool ok = false;
    number = _text.mid(start, _pos - start).toDouble(&ok);
    if (!ok)
        _pos = start;
    return ok;
}

bool QXQueryParser::parseTime(QVariant &value)
{
    const QString form = parseIdentifier();
    double offset = 0;
    QString isoText;
    if (accept(u"(")) {
        if (form == QLatin1String("iso")) {
            skipSpace();
            const qsizetype start = _pos;
            while (!atEnd() && _text.at(_pos) != u')')
                ++_pos;
            isoText = _text.mid(start, _pos - start).trimmed();
        } else if (!parseNumber(offset)) {
            fail(QStringLiteral("a number is missing in $time.%1").arg(form));
            return false;
        }
        if (!accept(u")")) {
            fail(QStringLiteral("missing \")\""));
            return false;
        }
    }
    // Far beyond any real search, and small enough to count days, weeks and
    // milliseconds in without overflowing.
    if (!(std::abs(offset) <= 1e9)) {
        fail(QStringLiteral("the number in $time.%1 is out of range").arg(form));
        return false;
    }
    const QDate today = _now.date();
    const QTime midnight(0, 0);
    const qint64 steps = static_cast<qint64>(offset);
    QDateTime time;
    if (form == QLatin1String("now")) {
        time = _now.addMSecs(static_cast<qint64>(offset * 1000));
    } else if (form == QLatin1String("today")) {
        time = QDateTime(today.addDays(steps), midnight);
    } else if (form == QLatin1String("yesterday")) {
        time = QDateTime(today.addDays(-1), midnight);
    } else if (form == QLatin1String("tomorrow")) {
        time = QDateTime(today.addDays(1), midnight);
    } else if (form == QLatin1String("this_week")) {
        const int back = (today.dayOfWeek() - QLocale().firstDayOfWeek() + 7) % 7;
        time = QDateTime(today.addDays(-back + 7 * steps), midnight);
    } else if (form == QLatin1String("this_month")) {
        time = QDateTime(QDate(today.year(), today.month(), 1).addMonths(int(steps)), midnight);
    } else if (form == QLatin1String("this_year")) {
        time = QDateTime(QDate(today.year(), 1, 1).addYears(int(steps)), midnight);
    } else if (form == QLatin1String("iso")) {
        time = QDateTime::fromString(isoText, Qt::ISODate);
        if (!time.isValid())
            time = QDateTime(QDate::fromString(isoText, Qt::ISODate), midnight);
    }
    if (!time.isValid()) {
        fail(QStringLiteral("unknown time \"$time.%1\"").arg(form));
        return false;
    }
    value = time;
    return true;
}
