#pragma once

#include <QByteArray>
#include <QtGlobal>

// Puts an environment variable back as it was when this goes out of scope.
class RestoredVariable
{
public:
    explicit RestoredVariable(const char *name)
        : _name(name)
        , _value(qgetenv(name))
        , _set(qEnvironmentVariableIsSet(name))
    {}
    ~RestoredVariable()
    {
        if (_set)
            qputenv(_name, _value);
        else
            qunsetenv(_name);
    }
    RestoredVariable(const RestoredVariable &) = delete;
    RestoredVariable &operator=(const RestoredVariable &) = delete;

private:
    const char *_name;
    QByteArray _value;
    bool _set;
};
