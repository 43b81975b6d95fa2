#include "QXQueryEvaluator.h"

#include "QXMetadataItem.h"

#include <QDateTime>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace {

QString withoutDiacritics(const QString &text)
{
    QString decomposed = text.normalized(QString::NormalizationForm_D);
    decomposed.removeIf([](QChar c) { return c.category() == QChar::Mark_NonSpacing; });
    return decomposed;
}

// "*" is any run of characters, "?" any one; a backslash makes either literal.
QString wildcardExpression(const QString &pattern)
{
    QString expression;
    for (qsizetype i = 0; i < pattern.size(); ++i) {
        const QChar c = pattern.at(i);
        if (c == u'\\' && i + 1 < pattern.size())
            expression += QRegularExpression::escape(pattern.at(++i));
        else if (c == u'*')
            expression += QStringLiteral(".*");
        else if (c == u'?')
            expression += u'.';
        else
            expression += QRegularExpression::escape(c);
    }
    return expression;
}

// Seconds since 2001-01-01 UTC, the platform's own measure of time. Beyond
// some 300,000 years either way every file's date compares the same, so the
// count is held there rather than overflow.
QDateTime referenceDate(double seconds)
{
    constexpr double limit = 1e16;
    const double msecs = std::isnan(seconds) ? 0 : std::clamp(seconds * 1000, -limit, limit);
    return QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC).addMSecs(static_cast<qint64>(msecs));
}

template <typename T> bool ordered(QXQueryNode::Operator op, const T &left, const T &right)
{
    switch (op) {
    case QXQueryNode::Operator::Equal:
        return left == right;
    case QXQueryNode::Operator::NotEqual:
        return left != right;
    case QXQueryNode::Operator::Less:
        return left < right;
    case QXQueryNode::Operator::Greater:
        return left > right;
    case QXQueryNode::Operator::LessOrEqual:
        return left <= right;
    case QXQueryNode::Operator::GreaterOrEqual:
        return left >= right;
    }
    return false;
}

} // namespace

QXQueryEvaluator::QXQueryEvaluator(std::shared_ptr<const QXQueryNode> query)
    : _query(std::move(query))
{
    if (_query)
        compileExpressions(*_query);
}

void QXQueryEvaluator::compileExpressions(const QXQueryNode &node)
{
    for (const std::shared_ptr<const QXQueryNode> &operand : node.operands)
        compileExpressions(*operand);
    if (node.kind != QXQueryNode::Kind::Comparison || node.value.typeId() == QMetaType::QDateTime)
        return;
    const QString pattern = node.value.toString();
    const QString expression = wildcardExpression(node.diacriticInsensitive ? withoutDiacritics(pattern) : pattern);
    QRegularExpression::PatternOptions options = QRegularExpression::DotMatchesEverythingOption;
    if (node.caseInsensitive)
        options |= QRegularExpression::CaseInsensitiveOption;
    // A word starts after a character that is neither letter nor digit, or
    // where a lower-case letter meets an upper-case one; likewise it ends.
    static const QString wordStart = QStringLiteral("(?:^|(?<=[^\\p{L}\\p{N}])|(?<=\\p{Ll})(?=\\p{Lu}))");
    static const QString wordEnd = QStringLiteral("(?:$|(?=[^\\p{L}\\p{N}])|(?<=\\p{Ll})(?=\\p{Lu}))");
    const QString group = QStringLiteral("(?:") + expression + QStringLiteral(")");
    const QString full =
        node.wordBased ? wordStart + group + wordEnd : QStringLiteral("\\A") + group + QStringLiteral("\\z");
    // Generated searches repeat the same test many times; compile each once.
    const QString key = QString::number(int(options)) + full;
    auto compiled = _compiled.constFind(key);
    if (compiled == _compiled.constEnd()) {
        QRegularExpression regex(full, options);
        regex.optimize();
        compiled = _compiled.insert(key, regex);
    }
    _expressions.insert(&node, *compiled);
}

bool QXQueryEvaluator::matches(const QString &path) const
{
    QXMetadataItem item(path);
    return matches(item);
}

bool QXQueryEvaluator::matches(QXMetadataItem &item) const
{
    return _query && evaluate(*_query, item);
}

bool QXQueryEvaluator::evaluate(const QXQueryNode &node, QXMetadataItem &item) const
{
    switch (node.kind) {
    case QXQueryNode::Kind::Constant:
        return node.constant;
    case QXQueryNode::Kind::Not:
        return !evaluate(*node.operands.constFirst(), item);
    case QXQueryNode::Kind::And:
        return std::all_of(node.operands.begin(), node.operands.end(),
                           [&](const auto &operand) { return evaluate(*operand, item); });
    case QXQueryNode::Kind::Or:
        return std::any_of(node.operands.begin(), node.operands.end(),
                           [&](const auto &operand) { return evaluate(*operand, item); });
    case QXQueryNode::Kind::InRange: {
        const QVariant value = item.attribute(node.attribute);
        return value.isValid() && compareOne(node, value, QXQueryNode::Operator::GreaterOrEqual, node.value)
               && compareOne(node, value, QXQueryNode::Operator::LessOrEqual, node.upperValue);
    }
    case QXQueryNode::Kind::Comparison:
        break;
    }
    if (node.attribute != QLatin1String("*"))
        return compare(node, item.attribute(node.attribute), node.op);
    // Any text attribute may match; none may for a difference.
    const QStringList names = QXMetadataItem::textAttributes();
    if (node.op == QXQueryNode::Operator::NotEqual) {
        return std::none_of(names.begin(), names.end(), [&](const QString &name) {
            return compare(node, item.attribute(name), QXQueryNode::Operator::Equal);
        });
    }
    return std::any_of(names.begin(), names.end(),
                       [&](const QString &name) { return compare(node, item.attribute(name), node.op); });
}

bool QXQueryEvaluator::compare(const QXQueryNode &node, const QVariant &attribute, QXQueryNode::Operator op) const
{
    if (!attribute.isValid())
        return false;
    if (attribute.typeId() != QMetaType::QStringList)
        return compareOne(node, attribute, op, node.value);
    // A list attribute matches when one of its values does; a difference
    // holds when none is equal.
    const QStringList values = attribute.toStringList();
    if (op == QXQueryNode::Operator::NotEqual) {
        return std::none_of(values.begin(), values.end(), [&](const QString &value) {
            return compareOne(node, value, QXQueryNode::Operator::Equal, node.value);
        });
    }
    return std::any_of(values.begin(), values.end(),
                       [&](const QString &value) { return compareOne(node, value, op, node.value); });
}

bool QXQueryEvaluator::compareOne(const QXQueryNode &node, const QVariant &attribute, QXQueryNode::Operator op,
                                  const QVariant &value) const
{
    switch (attribute.typeId()) {
    case QMetaType::Double: {
        bool ok = false;
        const double number = value.toDouble(&ok);
        return ok && value.typeId() != QMetaType::QDateTime && ordered(op, attribute.toDouble(), number);
    }
    case QMetaType::QDateTime: {
        QDateTime time;
        if (value.typeId() == QMetaType::QDateTime)
            time = value.toDateTime();
        else if (value.typeId() == QMetaType::Double)
            time = referenceDate(value.toDouble());
        else
            time = QDateTime::fromString(value.toString(), Qt::ISODate);
        return time.isValid() && ordered(op, attribute.toDateTime(), time);
    }
    default:
        break;
    }
    const QString text = attribute.toString();
    const QString pattern = value.toString();
    if (op == QXQueryNode::Operator::Equal)
        return textMatches(node, text);
    if (op == QXQueryNode::Operator::NotEqual)
        return !textMatches(node, text);
    QString left = node.diacriticInsensitive ? withoutDiacritics(text) : text;
    QString right = node.diacriticInsensitive ? withoutDiacritics(pattern) : pattern;
    const int order = QString::compare(left, right, node.caseInsensitive ? Qt::CaseInsensitive : Qt::CaseSensitive);
    return ordered(op, order, 0);
}

bool QXQueryEvaluator::textMatches(const QXQueryNode &node, const QString &text) const
{
    const auto expression = _expressions.constFind(&node);
    if (expression == _expressions.constEnd())
        return false;
    return expression->match(node.diacriticInsensitive ? withoutDiacritics(text) : text).hasMatch();
}
