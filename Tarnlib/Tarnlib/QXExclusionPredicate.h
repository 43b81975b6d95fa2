#pragma once

#include <QRegularExpression>
#include <QString>

// One exclusion rule tested against a full path: either the whole path
// matches a regular expression ("SELF MATCHES %@"), or the path contains a
// text regardless of case and diacritics ("SELF contains[cd] %@").
class QXExclusionPredicate
{
public:
    enum class Kind { Matches, Contains };

    QXExclusionPredicate(Kind kind, const QString &argument);
    static QXExclusionPredicate matching(const QString &regularExpression);
    static QXExclusionPredicate containing(const QString &text);

    Kind kind() const { return _kind; }
    QString argument() const { return _argument; }
    QString predicateFormat() const;
    // An invalid regular expression matches nothing.
    bool evaluate(const QString &path) const;

    // Decomposed, without non-spacing marks, case-folded: "É" and "e" agree.
    static QString folded(const QString &text);

    bool operator==(const QXExclusionPredicate &other) const
    {
        return _kind == other._kind && _argument == other._argument;
    }

private:
    Kind _kind;
    QString _argument;
    QRegularExpression _expression;
    QString _foldedArgument;
};
