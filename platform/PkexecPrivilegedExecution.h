#pragma once

#include "PrivilegedExecution.h"

// pkexec, under the polkit action that names the program.
class PkexecPrivilegedExecution : public PrivilegedExecution
{
public:
    static constexpr const char *pkexecPath = "/usr/bin/pkexec";

    Result runWithPrivileges(const QString &program) override;
};
