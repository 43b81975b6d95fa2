#pragma once

#include <QString>

// "Scan with Korvane" in the Scripts menu of Files (Nautilus), which reads
// scripts only from the user's home: a link there to the installed script.
class NautilusScript
{
public:
    // $XDG_DATA_HOME/nautilus/scripts/Scan with Korvane
    static QString path();
    // share/korvane/nautilus/Scan with Korvane of the prefix whose bin/ holds Korvane.
    static QString installedScript(const QString &korvaneProgram);
    static bool isEnabled();
    // Makes or removes the link. Answers false, with the reason, when the
    // script is not installed or a file of the user's own is in the way.
    static bool setEnabled(bool enabled, const QString &korvaneProgram, QString *error = nullptr);
};
