#include "BenchTable.h"

#include "platform/SystemLog.h"

#include <QTextStream>

#include <algorithm>
#include <cmath>

void BenchTable::add(const QString &figure, const QString &value, const QString &target, Verdict verdict)
{
    _rows.append({figure, value, target, verdict});
}

void BenchTable::add(const QString &figure, const QString &value, const QString &target, bool met)
{
    add(figure, value, target, met ? Verdict::Pass : Verdict::Fail);
}

void BenchTable::note(const QString &figure, const QString &value)
{
    add(figure, value, QStringLiteral("—"), Verdict::Info);
}

void BenchTable::print(QTextStream &out) const
{
    const QStringList header{QStringLiteral("figure"), QStringLiteral("value"), QStringLiteral("target"),
                             QStringLiteral("pass/fail")};
    QList<QStringList> lines{header};
    for (const Row &row : _rows) {
        const QString verdict = row.verdict == Verdict::Pass   ? QStringLiteral("pass")
                                : row.verdict == Verdict::Fail ? QStringLiteral("FAIL")
                                                               : QStringLiteral("info");
        lines.append({row.figure, row.value, row.target, verdict});
    }
    QList<qsizetype> widths(header.size(), 3);
    for (const QStringList &line : lines)
        for (qsizetype column = 0; column < line.size(); ++column)
            widths[column] = std::max(widths[column], line.at(column).size());
    const auto printLine = [&](const QStringList &cells) {
        out << '|';
        for (qsizetype column = 0; column < cells.size(); ++column)
            out << ' ' << cells.at(column).leftJustified(widths.at(column)) << " |";
        out << '\n';
    };
    printLine(lines.first());
    QStringList rule;
    for (qsizetype width : widths)
        rule.append(QString(width, QLatin1Char('-')));
    printLine(rule);
    for (qsizetype i = 1; i < lines.size(); ++i)
        printLine(lines.at(i));
    out.flush();
}

int BenchTable::failures() const
{
    return int(
        std::count_if(_rows.cbegin(), _rows.cend(), [](const Row &row) { return row.verdict == Verdict::Fail; }));
}

QString BenchTable::seconds(double ms)
{
    if (std::isnan(ms) || ms < 0)
        return QStringLiteral("n/a");
    return QStringLiteral("%1 s").arg(ms / 1000.0, 0, 'f', 3);
}

QString BenchTable::megabytes(qint64 kb)
{
    return QStringLiteral("%1 MB").arg(double(kb) / 1024.0, 0, 'f', 1);
}

void BenchTable::progress(const QString &text)
{
    SystemLog::log(QStringLiteral("bench: ") + text);
}
