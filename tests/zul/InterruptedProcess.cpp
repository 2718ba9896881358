#include "tests/zul/InterruptedProcess.h"

#include <array>
#include <csignal>
#include <cstddef>
#include <exception>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Testbed {

namespace {

constexpr std::array flushingCalls{SYS_fsync, SYS_fdatasync, SYS_syncfs, SYS_sync};

constexpr std::array changingCalls{
#ifdef SYS_unlink
    SYS_mkdir,     SYS_rmdir,     SYS_unlink,    SYS_rename,         SYS_symlink,   SYS_link,
    SYS_chmod,     SYS_chown,     SYS_lchown,
#endif
#ifdef SYS_renameat
    SYS_renameat,
#endif
    SYS_mkdirat,   SYS_unlinkat,  SYS_renameat2, SYS_symlinkat,      SYS_linkat,    SYS_mknodat,
    SYS_fchmod,    SYS_fchmodat,  SYS_fchown,    SYS_fchownat,       SYS_utimensat, SYS_truncate,
    SYS_ftruncate, SYS_fallocate, SYS_setxattr,  SYS_lsetxattr,      SYS_fsetxattr, SYS_fremovexattr,
    SYS_pwrite64,  SYS_writev,    SYS_sendfile,  SYS_copy_file_range};

constexpr sock_filter load(std::size_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
}
constexpr sock_filter jump(int test, long value, unsigned char ifTrue, unsigned char ifFalse) {
    return BPF_JUMP(static_cast<unsigned short>(BPF_JMP | test | BPF_K), static_cast<unsigned>(value), ifTrue,
                    ifFalse);
}
constexpr sock_filter answer(unsigned action) { return BPF_STMT(BPF_RET | BPF_K, action); }

std::vector<sock_filter> filter(unsigned onChange, unsigned onFlush) {
    std::vector<sock_filter> program{load(offsetof(seccomp_data, nr))};
    for (const auto call : flushingCalls) {
        program.insert(program.end(), {jump(BPF_JEQ, call, 0, 1), answer(onFlush)});
    }
    for (const auto call : changingCalls) {
        program.insert(program.end(), {jump(BPF_JEQ, call, 0, 1), answer(onChange)});
    }
    // Opening changes something when it may create or cut; writing does when it is not to the log.
    const auto argument = [](std::size_t number) {
        return offsetof(seccomp_data, args) + number * sizeof(__u64);
    };
    program.insert(program.end(),
                   {jump(BPF_JEQ, SYS_openat, 0, 4), load(argument(2)),
                    jump(BPF_JSET, O_CREAT | O_TRUNC, 0, 1), answer(onChange), answer(SECCOMP_RET_ALLOW),
                    jump(BPF_JEQ, SYS_write, 0, 3), load(argument(0)), jump(BPF_JGT, STDERR_FILENO, 0, 1),
                    answer(onChange), answer(SECCOMP_RET_ALLOW)});
    return program;
}

[[noreturn]] void runChild(const std::function<void()>& action, unsigned onChange,
                           unsigned onFlush = SECCOMP_RET_ERRNO) {
    // The end of a test's child must be quick and quiet.
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    auto program = filter(onChange, onFlush);
    const sock_fprog description{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &description, 0, 0) != 0) {
        _exit(3);
    }
    try {
        action();
    } catch (const std::exception&) {
        _exit(1);
    }
    _exit(0);
}

End endOf(int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
        return End::Killed;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        throw std::runtime_error("child ended with wait status " + std::to_string(status));
    }
    return WEXITSTATUS(status) == 0 ? End::Finished : End::Failed;
}

} // namespace

End runInChild(const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        runChild(action, SECCOMP_RET_ALLOW);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return endOf(status);
}

namespace {

/// Runs an action in a child that stops before each call the filter traces.
/// @param atCall  returns whether the child is to go on; it is killed otherwise
End runTraced(const std::function<void()>& action, unsigned onFlush,
              const std::function<bool(pid_t)>& atCall) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        runChild(action, SECCOMP_RET_TRACE, onFlush);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL) != 0) {
        throw std::runtime_error("couldn't trace a child process");
    }
    while (WIFSTOPPED(status)) {
        const bool isCall = status >> 8 == (SIGTRAP | (PTRACE_EVENT_SECCOMP << 8));
        if (isCall && !atCall(child)) {
            kill(child, SIGKILL);
        } else {
            ptrace(PTRACE_CONT, child, nullptr, nullptr);
        }
        waitpid(child, &status, 0);
    }
    return endOf(status);
}

std::string textAt(pid_t child, __u64 address) {
    std::string text(256, '\0');
    iovec here{text.data(), text.size()};
    iovec there{reinterpret_cast<void*>(address), text.size()}; // NOLINT: of another process
    static_cast<void>(process_vm_readv(child, &here, 1, &there, 1, 0));
    return text.c_str();
}

std::string nameOfCall(pid_t child) {
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    const auto& arguments = info.seccomp.args;
    switch (info.seccomp.nr) {
    case SYS_fsync:
        return "fsync";
    case SYS_syncfs:
        return "syncfs";
#ifdef SYS_unlink
    case SYS_rename:
    case SYS_symlink:
        return "link " + textAt(child, arguments[1]);
    case SYS_unlink:
        return "remove " + textAt(child, arguments[0]);
#endif
    case SYS_symlinkat:
        return "link " + textAt(child, arguments[2]);
    case SYS_renameat2:
        return "link " + textAt(child, arguments[3]);
    case SYS_unlinkat:
        return "remove " + textAt(child, arguments[1]);
    default:
        return "change";
    }
}

} // namespace

End runInterrupted(unsigned callsBefore, const std::function<void()>& action) {
    return runTraced(action, SECCOMP_RET_ERRNO,
                     [&, calls = 0U](pid_t /*child*/) mutable { return calls++ != callsBefore; });
}

std::vector<std::string> recordCalls(const std::function<void()>& action) {
    std::vector<std::string> calls;
    const auto end = runTraced(action, SECCOMP_RET_TRACE, [&](pid_t child) {
        calls.push_back(nameOfCall(child));
        return true;
    });
    if (end != End::Finished) {
        throw std::runtime_error("the recorded action failed");
    }
    return calls;
}

} // namespace Testbed
