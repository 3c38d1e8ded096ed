// traced_process.h: runs something in a child process that is being debugged.
#pragma once

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

// What a_test() says in a child that this process traces; -1 when the machine allows no tracing.
template <class Test>
int InTracedProcess(Test a_test)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 ? 2 : a_test() ? 1 : 0);
    int iStatus = 0;
    const bool blEnded = pid > 0 && waitpid(pid, &iStatus, 0) == pid && WIFEXITED(iStatus);
    return blEnded && WEXITSTATUS(iStatus) < 2 ? WEXITSTATUS(iStatus) : -1;
}
