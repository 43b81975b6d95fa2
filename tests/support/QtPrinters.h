#pragma once

#include <QDateTime>
#include <QDebug>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <ostream>

// Readable Qt values in GoogleTest's failure messages.
inline void PrintTo(const QString &value, std::ostream *out)
{
    *out << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QStringList &value, std::ostream *out)
{
    *out << '[' << value.join(QStringLiteral(", ")).toStdString() << ']';
}

inline void PrintTo(const QByteArray &value, std::ostream *out)
{
    *out << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QVariant &value, std::ostream *out)
{
    QString text;
    QDebug(&text) << value;
    *out << text.toStdString();
}

inline void PrintTo(const QVariantMap &value, std::ostream *out)
{
    PrintTo(QVariant(value), out);
}

inline void PrintTo(const QVariantList &value, std::ostream *out)
{
    PrintTo(QVariant(value), out);
}

inline void PrintTo(const QDateTime &value, std::ostream *out)
{
    *out << value.toString(Qt::ISODateWithMs).toStdString();
}
