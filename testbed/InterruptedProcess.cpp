#include "testbed/InterruptedProcess.h"

#include "common/Error.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <elf.h>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Those of sanitizers are not replaced.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define REPLACES_OPERATOR_NEW
#endif

namespace {

// How many allocations there are until one fails; shared with the parent process.
std::atomic<long>* allocationsLeft = nullptr;

} // namespace

#ifdef REPLACES_OPERATOR_NEW
void* operator new(std::size_t size) {
    void* memory = allocationsLeft != nullptr && --*allocationsLeft == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
#endif

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

constexpr std::array readingCalls{
#ifdef SYS_open
    SYS_open,       SYS_stat,       SYS_lstat,      SYS_access,  SYS_readlink,
#endif
    SYS_openat,     SYS_openat2,    SYS_newfstatat, SYS_fstat,   SYS_statx,    SYS_faccessat, SYS_faccessat2,
    SYS_readlinkat, SYS_getdents64, SYS_read,       SYS_pread64, SYS_getxattr, SYS_lgetxattr, SYS_fgetxattr,
    SYS_listxattr,  SYS_llistxattr, SYS_flistxattr, SYS_fsync,   SYS_syncfs};

constexpr sock_filter load(std::size_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
}
constexpr sock_filter jump(int test, long value, unsigned char ifTrue, unsigned char ifFalse) {
    return BPF_JUMP(static_cast<unsigned short>(BPF_JMP | test | BPF_K), static_cast<unsigned>(value), ifTrue,
                    ifFalse);
}
constexpr sock_filter answer(unsigned action) { return BPF_STMT(BPF_RET | BPF_K, action); }

/// What the kernel does at a call that changes a file system, waits for the disk, or reads files.
struct Answers {
    unsigned onChange = SECCOMP_RET_ALLOW;
    unsigned onFlush = SECCOMP_RET_ERRNO; // returns at once
    unsigned onRead = SECCOMP_RET_ALLOW;
};

std::vector<sock_filter> filter(const Answers& answers) {
    std::vector<sock_filter> program{load(offsetof(seccomp_data, nr))};
    const auto add = [&program](const auto& calls, unsigned action) {
        for (const auto call : calls) {
            program.insert(program.end(), {jump(BPF_JEQ, call, 0, 1), answer(action)});
        }
    };
    add(flushingCalls, answers.onFlush);
    add(changingCalls, answers.onChange);
    // Opening counts as a change if it may create or truncate; writing, unless it is to standard error.
    const auto argument = [](std::size_t number) {
        return offsetof(seccomp_data, args) + number * sizeof(__u64);
    };
    program.insert(program.end(),
                   {jump(BPF_JEQ, SYS_openat, 0, 4), load(argument(2)),
                    jump(BPF_JSET, O_CREAT | O_TRUNC, 0, 1), answer(answers.onChange), answer(answers.onRead),
                    jump(BPF_JEQ, SYS_write, 0, 4), load(argument(0)), jump(BPF_JGT, STDERR_FILENO, 0, 1),
                    answer(answers.onChange), answer(SECCOMP_RET_ALLOW)});
    add(readingCalls, answers.onRead);
    program.push_back(answer(SECCOMP_RET_ALLOW));
    return program;
}

[[noreturn]] void runChild(const std::function<void()>& action, const Answers& answers) {
    // A child must end quickly and without output.
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    auto program = filter(answers);
    const sock_fprog description{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &description, 0, 0) != 0) {
        _exit(3);
    }
    try {
        action();
    } catch (const Common::Error&) {
        _exit(1);
    } catch (const std::exception& error) {
        std::cout << "not a Common::Error: " << error.what() << std::endl;
        _exit(2);
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

enum class Step { Go, Kill, Fail };

/// Makes the call that a child stopped at return an error.
void failCall(pid_t child, int error) {
#if defined(__x86_64__)
    user_regs_struct registers{};
    ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    registers.orig_rax = ~0ULL;
    registers.rax = static_cast<unsigned long long>(-error);
    ptrace(PTRACE_SETREGS, child, nullptr, &registers);
#elif defined(__aarch64__)
    int none = -1;
    iovec number{&none, sizeof none};
    ptrace(PTRACE_SETREGSET, child, NT_ARM_SYSTEM_CALL, &number);
    user_regs_struct registers{};
    iovec all{&registers, sizeof registers};
    ptrace(PTRACE_GETREGSET, child, NT_PRSTATUS, &all);
    registers.regs[0] = static_cast<unsigned long long>(-error);
    ptrace(PTRACE_SETREGSET, child, NT_PRSTATUS, &all);
#else
#error "write here how a system call is skipped on this machine"
#endif
}

/// Runs an action in a child that stops before each call the filter traces.
/// @param atCall  returns what becomes of the child or the call
End runTraced(const std::function<void()>& action, const Answers& answers,
              const std::function<Step(pid_t)>& atCall, int error = 0) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        runChild(action, answers);
    }
    int status = 0;
    waitpid(child, &status, 0);
    // In a thread or child process without a tracer the traced calls fail.
    constexpr auto options = PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE |
                             PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, options) != 0) {
        throw std::runtime_error("couldn't trace a child process");
    }
    for (pid_t stopped = child; stopped != child || WIFSTOPPED(status);
         stopped = waitpid(-1, &status, __WALL)) {
        if (!WIFSTOPPED(status)) {
            continue;
        }
        const bool isCall = status >> 8 == (SIGTRAP | (PTRACE_EVENT_SECCOMP << 8));
        const auto step = isCall ? atCall(stopped) : Step::Go;
        if (step == Step::Kill) {
            kill(child, SIGKILL);
            continue;
        }
        if (step == Step::Fail) {
            failCall(stopped, error);
        }
        // A signal of its own, as that of abort(), ends the child.
        const int signal = WSTOPSIG(status);
        ptrace(PTRACE_CONT, stopped, nullptr, signal == SIGTRAP || signal == SIGSTOP ? 0 : signal);
    }
    return endOf(status);
}

std::string textAt(pid_t child, __u64 address) {
    std::string text(256, '\0');
    iovec here{text.data(), text.size()};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the address is in another process
    iovec there{reinterpret_cast<void*>(address), text.size()};
    static_cast<void>(process_vm_readv(child, &here, 1, &there, 1, 0));
    return text.substr(0, text.find('\0'));
}

auto callOf(pid_t child) {
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    return info.seccomp;
}

/// Whether a call writes to or reads from a pipe, as sanitizers do to probe memory.
bool isAboutPipe(pid_t child) {
    const auto call = callOf(child);
    struct stat status {};
    const auto file = "/proc/" + std::to_string(child) + "/fd/" + std::to_string(call.args[0]);
    return (call.nr == SYS_write || call.nr == SYS_read) && stat(file.c_str(), &status) == 0 &&
           S_ISFIFO(status.st_mode);
}

std::string nameOfCall(pid_t child) {
    const auto call = callOf(child);
    const auto& arguments = call.args;
    switch (call.nr) {
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
    case SYS_mkdirat:
        return "make " + textAt(child, arguments[1]);
    case SYS_symlinkat:
        return "link " + textAt(child, arguments[2]);
    case SYS_renameat2:
#ifdef SYS_renameat
    case SYS_renameat:
#endif
        return "link " + textAt(child, arguments[3]);
    case SYS_unlinkat:
        return "remove " + textAt(child, arguments[1]);
    default:
        return "change";
    }
}

} // namespace

End runInChild(const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        runChild(action, {});
    }
    int status = 0;
    waitpid(child, &status, 0);
    return endOf(status);
}

End runInterrupted(unsigned callsBefore, const std::function<void()>& action) {
    return runTraced(action, {.onChange = SECCOMP_RET_TRACE}, [&, calls = 0U](pid_t /*child*/) mutable {
        return calls++ == callsBefore ? Step::Kill : Step::Go;
    });
}

void forEachFault(unsigned stride, const std::function<bool(const Fault&, unsigned callsBefore)>& attempt) {
    constexpr std::array faults{Fault{"EIO", EIO, false, false}, Fault{"ENOSPC", ENOSPC, false, true},
                                Fault{"full disk", ENOSPC, true, true}, Fault{"EROFS", EROFS, true, true},
#ifdef REPLACES_OPERATOR_NEW
                                Fault{"no memory", ENOMEM, false, false}
#endif
    };
    const unsigned step = getenv("VENDARA_ALL_FAULTS") != nullptr ? 1 : stride;
    const char* given = getenv("VENDARA_FAULT_SEED");
    auto point = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 11U;
    unsigned count = 0;
    for (const auto& fault : faults) {
        bool wasMet = true;
        for (point %= step; wasMet && !testing::Test::HasFailure(); point += step) {
            SCOPED_TRACE(std::string(fault.name) + " at call " + std::to_string(point));
            wasMet = attempt(fault, point);
            count += wasMet ? 1 : 0;
        }
    }
    std::cout << "failed at " << count << " calls" << std::endl;
}

namespace {

std::pair<End, bool> runWithoutMemory(unsigned allocationsBefore, const std::function<void()>& action) {
    static auto* const left = new (mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<long>;
    *left = allocationsBefore + 1L;
    const auto end = runInChild([&] {
        allocationsLeft = left;
        try {
            action();
        } catch (const std::bad_alloc&) { // in the action itself
            _exit(1);
        }
    });
    return {end, *left <= 0};
}

} // namespace

std::pair<End, bool> runWithFault(unsigned callsBefore, const Fault& fault,
                                  const std::function<void()>& action) {
    if (fault.error == ENOMEM) {
        return runWithoutMemory(callsBefore, action);
    }
    Answers answers{.onChange = SECCOMP_RET_TRACE};
    if (!fault.onlyChanges) {
        answers.onFlush = answers.onRead = SECCOMP_RET_TRACE;
    }
    unsigned calls = 0;
    const auto atCall = [&](pid_t child) {
        if (isAboutPipe(child)) {
            return Step::Go;
        }
        const bool fails = fault.isPersistent ? calls >= callsBefore : calls == callsBefore;
        ++calls;
        return fails ? Step::Fail : Step::Go;
    };
    const auto end = runTraced(action, answers, atCall, fault.error);
    return {end, calls > callsBefore};
}

std::vector<std::string> recordCalls(const std::function<void()>& action) {
    std::vector<std::string> calls;
    const auto end =
        runTraced(action, {.onChange = SECCOMP_RET_TRACE, .onFlush = SECCOMP_RET_TRACE}, [&](pid_t child) {
            calls.push_back(nameOfCall(child));
            return Step::Go;
        });
    if (end != End::Finished) {
        throw std::runtime_error("the recorded action failed");
    }
    return calls;
}

} // namespace Testbed
