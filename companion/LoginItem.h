#pragma once

#include <QString>

// The agent's XDG autostart entry, which makes the desktop start it at login.
class LoginItem
{
public:
    // $XDG_CONFIG_HOME/autostart/org.korvane.KorvaneVarden.desktop
    static QString path();
    static bool isEnabled();
    // Writes the entry starting agentProgram, or removes it. Answers false,
    // with the reason, when the file could not be written or removed.
    static bool setEnabled(bool enabled, const QString &agentProgram, QString *error = nullptr);
    static QString entryText(const QString &agentProgram);
};
