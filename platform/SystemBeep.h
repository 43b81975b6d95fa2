#pragma once

// The system beep, behind a seam so tests can count it.
class SystemBeep
{
public:
    virtual ~SystemBeep() = default;

    static SystemBeep *sharedBeep();
    static void setSharedBeep(SystemBeep *beep);
    static void beep() { sharedBeep()->play(); }

    virtual void play() = 0;
};
