#pragma once

#include <QIcon>
#include <QString>

// Images by name from the program's resources (":/images/<name>.svg").
class NamedImage
{
public:
    // A null icon when there is no image of that name.
    static QIcon imageNamed(const QString &name);
};
