#include "QXExclusionPredicate.h"

QXExclusionPredicate::QXExclusionPredicate(Kind kind, const QString &argument)
    : _kind(kind)
    , _argument(argument)
{
    if (_kind == Kind::Matches)
        _expression.setPattern(QRegularExpression::anchoredPattern(argument));
    else
        _foldedArgument = folded(argument);
}

QXExclusionPredicate QXExclusionPredicate::matching(const QString &regularExpression)
{
    return QXExclusionPredicate(Kind::Matches, regularExpression);
}

QXExclusionPredicate QXExclusionPredicate::containing(const QString &text)
{
    return QXExclusionPredicate(Kind::Contains, text);
}

QString QXExclusionPredicate::predicateFormat() const
{
    return _kind == Kind::Matches ? QStringLiteral("SELF MATCHES %@") : QStringLiteral("SELF contains[cd] %@");
}

bool QXExclusionPredicate::evaluate(const QString &path) const
{
    if (_kind == Kind::Matches)
        return _expression.isValid() && _expression.match(path).hasMatch();
    // An empty text would otherwise be found in every path.
    return !_foldedArgument.isEmpty() && folded(path).contains(_foldedArgument);
}

QString QXExclusionPredicate::folded(const QString &text)
{
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString bare;
    bare.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (c.category() != QChar::Mark_NonSpacing)
            bare.append(c);
    }
    return bare.toCaseFolded();
}
