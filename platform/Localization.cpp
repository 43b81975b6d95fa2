#include "Localization.h"

#include <QCoreApplication>
#include <QLocale>
#include <QTranslator>

bool Localization::install(QCoreApplication *app)
{
    auto *translator = new QTranslator(app);
    if (translator->load(QLocale(), QStringLiteral("KorvaneVarden"), QStringLiteral("_"), QStringLiteral(":/i18n"))
        || translator->load(QStringLiteral(":/i18n/KorvaneVarden_en.qm"))) {
        QCoreApplication::installTranslator(translator);
        return true;
    }
    delete translator;
    return false;
}

QString Localization::text(const char *key)
{
    return QCoreApplication::translate("Localizable", key);
}

QString Localization::text(const QString &key)
{
    const QByteArray utf8 = key.toUtf8();
    return QCoreApplication::translate("Localizable", utf8.constData());
}
