// plat_fork.h: what a copy of this process answers that is somebody else, or may do less.
#pragma once

#include "plat_support.h"

#include <sys/wait.h>
#include <unistd.h>

// What another process, which begins like this, answers; 99 when it cannot begin so.
template <class Begin, class Answer>
int InOtherProcess(Begin a_begin, Answer a_answer)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(a_begin() ? static_cast<int>(a_answer()) : 99);
    int iStatus = 0;
    waitpid(pid, &iStatus, 0);
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}
