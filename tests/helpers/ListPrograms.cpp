// list_programs: prints the process list one program a line, as the agent
// sees it; tests run it as another user.

#include "platform/ProcessList.h"

#include <cstdio>

int main()
{
    for (const QString &program : ProcessList::executablePaths())
        std::printf("%s\n", program.toLocal8Bit().constData());
    return 0;
}
