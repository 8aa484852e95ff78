// SPDX-License-Identifier: Apache-2.0
// killpoint: runs a program under ptrace and kills its whole process tree
// just before the Nth system call that changes a file, counted over every
// process of the tree (the host, the plug-in's shells and the tools they
// run), as a reset of the BMC at that moment would. Counting starts at the
// tree's first chroot(), so that only the work inside the sandbox counts.
//
//   killpoint N PROGRAM [ARG...]
//
// N = 0 only counts: "killpoint: P points" on standard error, and the
// program's own exit status. Otherwise "killpoint: killed before point N"
// and exit status 137, or the count and the program's status when the tree
// ends before point N.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

enum
{
    maxTracees = 4096
};

static pid_t tracees[maxTracees];
static int traceeCount;

static int known(pid_t pid)
{
    for (int i = 0; i < traceeCount; ++i)
    {
        if (tracees[i] == pid)
        {
            return 1;
        }
    }
    return 0;
}

static void forget(pid_t pid)
{
    for (int i = 0; i < traceeCount; ++i)
    {
        if (tracees[i] == pid)
        {
            tracees[i] = tracees[--traceeCount];
            return;
        }
    }
}

// Whether descriptor fd of pid is a regular file: writes to pipes and
// terminals change no file.
static int regularFile(pid_t pid, unsigned long long fd)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%llu", (int)pid, fd);
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

static int opensForWriting(unsigned long long flags)
{
    return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC));
}

static int changesFiles(pid_t pid, const struct __ptrace_syscall_info* info)
{
    const auto* a = info->entry.args;
    switch (info->entry.nr)
    {
#ifdef SYS_open
        case SYS_open:
            return opensForWriting(a[1]);
#endif
        case SYS_openat:
            return opensForWriting(a[2]);
        case SYS_write:
        case SYS_writev:
        case SYS_pwrite64:
        case SYS_pwritev:
        case SYS_ftruncate:
        case SYS_fsync:
        case SYS_fdatasync:
            return regularFile(pid, a[0]);
#ifdef SYS_creat
        case SYS_creat:
#endif
#ifdef SYS_rename
        case SYS_rename:
#endif
#ifdef SYS_unlink
        case SYS_unlink:
#endif
#ifdef SYS_rmdir
        case SYS_rmdir:
#endif
#ifdef SYS_mkdir
        case SYS_mkdir:
#endif
#ifdef SYS_link
        case SYS_link:
#endif
#ifdef SYS_symlink
        case SYS_symlink:
#endif
#ifdef SYS_chmod
        case SYS_chmod:
#endif
        case SYS_renameat:
        case SYS_renameat2:
        case SYS_unlinkat:
        case SYS_mkdirat:
        case SYS_linkat:
        case SYS_symlinkat:
        case SYS_truncate:
        case SYS_fchmod:
        case SYS_fchmodat:
        case SYS_execve:
            return 1;
        default:
            return 0;
    }
}

int main(int argc, char** argv)
{
    if (argc < 3)
    {
        fprintf(stderr, "usage: killpoint N PROGRAM [ARG...]\n");
        return 2;
    }
    char* end = NULL;
    long target = strtol(argv[1], &end, 10);
    if (*end != '\0' || target < 0)
    {
        fprintf(stderr, "killpoint: bad point '%s'\n", argv[1]);
        return 2;
    }

    pid_t child = fork();
    if (child < 0)
    {
        perror("killpoint: fork");
        return 1;
    }
    if (child == 0)
    {
        ptrace(PTRACE_TRACEME, 0, NULL, NULL);
        raise(SIGSTOP);
        execvp(argv[2], argv + 2);
        perror("killpoint: exec");
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
    {
        fprintf(stderr, "killpoint: the program did not start\n");
        return 1;
    }
    ptrace(PTRACE_SETOPTIONS, child, NULL,
           (void*)(long)(PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK |
                         PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                         PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL));
    tracees[traceeCount++] = child;
    ptrace(PTRACE_SYSCALL, child, NULL, NULL);

    int armed = 0;
    int killed = 0;
    long points = 0;
    int childStatus = 0;
    for (;;)
    {
        pid_t pid = waitpid(-1, &status, __WALL);
        if (pid < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            break;
        }
        if (WIFEXITED(status) || WIFSIGNALED(status))
        {
            forget(pid);
            if (pid == child)
            {
                childStatus = status;
            }
            continue;
        }
        if (!WIFSTOPPED(status))
        {
            continue;
        }
        int sig = WSTOPSIG(status);
        int inject = 0;
        if (!known(pid))
        {
            // A new process of the tree; it starts with a SIGSTOP of its own.
            if (traceeCount < maxTracees)
            {
                tracees[traceeCount++] = pid;
            }
        }
        else if (sig == (SIGTRAP | 0x80))
        {
            struct __ptrace_syscall_info info;
            memset(&info, 0, sizeof(info));
            if (!killed &&
                ptrace(PTRACE_GET_SYSCALL_INFO, pid, (void*)sizeof(info),
                       &info) > 0 &&
                info.op == PTRACE_SYSCALL_INFO_ENTRY)
            {
                if (info.entry.nr == SYS_chroot)
                {
                    armed = 1;
                }
                else if (armed && changesFiles(pid, &info) &&
                         ++points == target)
                {
                    // The reset: every process of the tree at once, this one
                    // before its call runs.
                    killed = 1;
                    for (int i = 0; i < traceeCount; ++i)
                    {
                        kill(tracees[i], SIGKILL);
                    }
                    continue;
                }
            }
        }
        else if (status >> 16 != 0)
        {
            // fork, clone, exec events: nothing to pass on.
        }
        else if (sig != SIGSTOP && sig != SIGTRAP)
        {
            inject = sig;
        }
        if (killed)
        {
            kill(pid, SIGKILL);
            continue;
        }
        ptrace(PTRACE_SYSCALL, pid, NULL, (void*)(long)inject);
    }

    if (killed)
    {
        fprintf(stderr, "killpoint: killed before point %ld\n", target);
        return 137;
    }
    fprintf(stderr, "killpoint: %ld points\n", points);
    if (WIFEXITED(childStatus))
    {
        return WEXITSTATUS(childStatus);
    }
    return 128 + WTERMSIG(childStatus);
}
