#pragma once

#include <QList>
#include <QString>

class QTextStream;

// The run's figures, each beside its target, printed as one Markdown table.
class BenchTable
{
public:
    enum class Verdict { Pass, Fail, Info };

    void add(const QString &figure, const QString &value, const QString &target, Verdict verdict);
    void add(const QString &figure, const QString &value, const QString &target, bool met);
    // A figure shown for comparison, with no target of its own.
    void note(const QString &figure, const QString &value);
    void print(QTextStream &out) const;
    int failures() const;

    static QString seconds(double ms);
    static QString megabytes(qint64 kb);
    // A progress line for the log, apart from the table on standard output.
    static void progress(const QString &text);

private:
    struct Row
    {
        QString figure;
        QString value;
        QString target;
        Verdict verdict;
    };
    QList<Row> _rows;
};
