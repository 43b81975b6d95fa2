#pragma once

#include <QString>

class QCoreApplication;

// Texts shown to the user, looked up by key in the "Localizable" context of
// the shipped translations. A key without a text shows as the key.
class Localization
{
public:
    // Loads the compiled translations for the user's language (English when
    // there is none for it).
    static bool install(QCoreApplication *app);
    static QString text(const char *key);
    static QString text(const QString &key);
};

inline QString LocalizedString(const char *key)
{
    return Localization::text(key);
}
