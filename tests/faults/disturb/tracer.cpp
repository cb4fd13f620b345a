#include "tests/faults/disturb/tracer.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "tests/faults/disturb/call_kinds.h"
#include "tests/faults/disturb/preloaded.h"
#include "tests/faults/disturb/strike_log.h"

#ifndef __x86_64__
#error "a system call is replaced through its registers, which is written for x86-64 alone"
#endif

namespace corvo::faults {

namespace {

constexpr std::string_view FIRST_OPENED = "/dev/null";
constexpr int STOPPED_AT_CALL = SIGTRAP | 0x80;  // PTRACE_O_TRACESYSGOOD
constexpr int EXECUTED = SIGTRAP | (PTRACE_EVENT_EXEC << 8);
constexpr long NO_CALL = -1;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// The whole of what PTRACE_GET_SYSCALL_INFO tells.
using CallInfo = __ptrace_syscall_info;

bool writesToStandardStream(const CallInfo& info) {
    return (info.entry.nr == SYS_write || info.entry.nr == SYS_writev) &&
           info.entry.args[0] <= STDERR_FILENO;
}

/// Both processes on one processor: they take turns, and each turn is then a plain switch.
void stayOnThisProcessor() {
    cpu_set_t here;
    CPU_ZERO(&here);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &here);
    (void)::sched_setaffinity(0, sizeof here, &here);
}

/// A run whose next system call this process decides about.
class Tracee {
public:
    /// Starts a run; `prepare` is done in it first.
    explicit Tracee(const std::function<void()>& prepare) {
        const auto run = preloading({"hurried_sleep"});
        pid_ = ::fork();
        if (pid_ < 0)
            fail("fork");
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::personality(ADDR_NO_RANDOMIZE);  // how often the heap grows must not be chance
            ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            (void)::raise(SIGSTOP);
            prepare();
            run();
            executeRun();
        }
        reachExecution();
        reachMain();
    }
    Tracee(const Tracee&) = delete;
    Tracee& operator=(const Tracee&) = delete;
    ~Tracee() {
        if (ended_)
            return;
        ::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, nullptr, __WALL);
    }

    /// Stands before the first call of main() at first. Goes from the entry of a call to its exit,
    /// or from there to the entry of the next. False when the run has ended.
    bool goOn() {
        isAtEntry_ = !isAtEntry_;
        return !ended_ && resume(PTRACE_SYSCALL, 0) && awaitCall();
    }

    /// Goes to the entry of the next call; false when the run has ended.
    bool goToNext() {
        do
            if (!goOn())
                return false;
        while (!isAtEntry_);
        const long number =
            ::ptrace(PTRACE_PEEKUSER, pid_, registerAt(offsetof(user_regs_struct, orig_rax)), 0);
        position_ = looksForAnswer(number) ? Position{position_.call, position_.look + 1}
                                           : Position{position_.call + 1, 0};
        return true;
    }

    const Position& position() const { return position_; }

    CallInfo info() const {
        CallInfo info = {};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info) < 0)
            fail("PTRACE_GET_SYSCALL_INFO");
        return info;
    }

    /// At the entry of a call.
    Call call() const {
        constexpr int LEAVES_TRACES = O_CREAT | O_TRUNC;
        const CallInfo entered = info();
        Call call;
        call.position = position_;
        call.number = static_cast<long>(entered.entry.nr);
        call.openFlags = openFlags(entered);
        call.changes = leavesTraces(call.number) || (call.openFlags & LEAVES_TRACES) != 0;
        call.mayFail = !isInfallible(call.number);
        call.speaks = writesToStandardStream(entered);
        return call;
    }

    /// At the entry of a call: the path of what it is about; empty when it has none.
    std::string object() const {
        const CallInfo entered = info();
        const auto number = static_cast<long>(entered.entry.nr);
        if (pathAt(number) == PathAt::first)
            return textAt(entered.entry.args[0]);
        const std::string open = pathOfDescriptor(static_cast<int>(entered.entry.args[0]));
        const std::string below =
            pathAt(number) == PathAt::second ? textAt(entered.entry.args[1]) : std::string();
        if (below.empty() || below.starts_with('/'))
            return below.empty() ? open : below;
        return open + "/" + below;
    }

    /// At the entry of a call: nothing is executed.
    void skipCall() { setRegister(offsetof(user_regs_struct, orig_rax), NO_CALL); }

    /// At the entry and at the exit of a call.
    void setFirstArgument(long value) { setRegister(offsetof(user_regs_struct, rdi), value); }

    /// At the exit of a call.
    void setResult(long result) { setRegister(offsetof(user_regs_struct, rax), result); }

    void kill() { ::kill(pid_, SIGKILL); }

    /// Leaves the run alone. Returns its exit status, or 128 + the signal that ended it.
    int end() {
        if (!ended_)
            ::ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
        while (!ended_)
            await();
        return status_;
    }

private:
    void reachExecution() {
        await();
        constexpr long OPTIONS = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
        if (::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, OPTIONS) != 0)
            fail("PTRACE_SETOPTIONS");
        while (stop_ >> 8 != EXECUTED)
            if (!resume(PTRACE_CONT, 0))
                fail("the run does not begin");
    }

    void reachMain() {
        while (goOn()) {
            if (!opensFirst(info()))
                continue;
            isAtEntry_ = true;
            return;
        }
        fail("the run does not reach main()");
    }

    bool opensFirst(const CallInfo& info) const {
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY || info.entry.nr != SYS_openat)
            return false;
        std::array<char, FIRST_OPENED.size() + 1> path{};
        return readMemory(info.entry.args[1], path.data(), path.size()) &&
               path.data() == FIRST_OPENED;
    }

    int openFlags(const CallInfo& info) const {
        if (info.entry.nr == SYS_openat)
            return static_cast<int>(info.entry.args[2]);
        struct open_how how = {};
        if (info.entry.nr == SYS_openat2 && readMemory(info.entry.args[2], &how, sizeof how))
            return static_cast<int>(how.flags);
        return 0;
    }

    /// A text that ends with a zero byte, read page by page.
    std::string textAt(std::uint64_t address) const {
        constexpr std::uint64_t PAGE = 4096;
        std::string text;
        std::array<char, PAGE> page{};
        for (bool goesOn = true; goesOn;) {
            const std::size_t size = PAGE - (address + text.size()) % PAGE;
            if (!readMemory(address + text.size(), page.data(), size))
                break;
            const std::size_t length = ::strnlen(page.data(), size);
            text.append(page.data(), length);
            goesOn = length == size;
        }
        return text;
    }

    std::string pathOfDescriptor(int descriptor) const {
        const std::string name =
            descriptor == AT_FDCWD ? "cwd" : "fd/" + std::to_string(descriptor);
        std::error_code none;
        return std::filesystem::read_symlink("/proc/" + std::to_string(pid_) + "/" + name, none);
    }

    /// False when it does not have as much at that address.
    bool readMemory(std::uint64_t address, void* copy, std::size_t size) const {
        const iovec here = {copy, size};
        const iovec there = {reinterpret_cast<void*>(address), size};
        return ::process_vm_readv(pid_, &here, 1, &there, 1, 0) == static_cast<ssize_t>(size);
    }

    /// Lets the run go to its next stop; false when it has ended instead.
    bool resume(__ptrace_request how, int signal) {
        ::ptrace(how, pid_, nullptr, signal);
        return await();
    }

    bool awaitCall() {
        while (!ended_ && WSTOPSIG(stop_) != STOPPED_AT_CALL)
            (void)resume(PTRACE_SYSCALL, stop_ >> 16 == 0 ? WSTOPSIG(stop_) : 0);
        return !ended_;
    }

    bool await() {
        while (::waitpid(pid_, &stop_, __WALL) < 0)
            if (errno != EINTR)
                fail("waitpid");
        ended_ = !WIFSTOPPED(stop_);
        if (ended_)
            status_ = WIFEXITED(stop_) ? WEXITSTATUS(stop_) : 128 + WTERMSIG(stop_);
        return !ended_;
    }

    static std::size_t registerAt(std::size_t offset) { return offsetof(user, regs) + offset; }

    void setRegister(std::size_t offset, long value) {
        if (::ptrace(PTRACE_POKEUSER, pid_, registerAt(offset), value) != 0)
            fail("PTRACE_POKEUSER");
    }

    pid_t pid_ = -1;
    Position position_{1, 0};
    bool isAtEntry_ = false;  // of a call, or else at its exit
    int stop_ = 0;
    int status_ = -1;
    bool ended_ = false;
};

/// Goes to a call; false when the run has none there.
bool reach(Tracee& run, const Position& position) {
    bool goesOn = true;
    while (goesOn && run.position() < position)
        goesOn = run.goToNext();
    return goesOn && run.position() == position;
}

/// A run in which `strike` happens at a call, unless it finds another one than expected and says
/// false. The tracer is a child of its own, which takes the run with it when the watchdog ends it.
FaultyRun disturb(const Position& position,
                  const std::function<bool(Tracee& run, StrikeLog& log)>& strike) {
    StrikeLog log;
    const Outcome outcome = watched([&] {
        stayOnThisProcessor();
        Tracee run([] {});
        if (reach(run, position) && strike(run, log))
            log.setMet();
        ::_exit(run.end());
    });
    return {outcome, log.isMet(), log.unread()};
}

/// Into a pipe, as under the watchdog: the C library looks closer at a device. The run holds both
/// ends, and what it says fits in.
void loseStreams() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0)
        ::_exit(1);
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
}

/// The kernel answers a failed brk as one that asks for nothing: with the end of memory as it is.
void failToMoveEnd(Tracee& run) {
    const auto wanted = static_cast<long>(run.info().entry.args[0]);
    run.setFirstArgument(0);
    if (run.goOn())
        run.setFirstArgument(wanted);
}

/// To the next call of a kind; false when the run has ended.
bool goTo(Tracee& run, const std::function<bool(const Call&)>& isOfTheKind, const Look& look) {
    while (run.goToNext()) {
        const Call next = run.call();
        if (look)
            look(next);
        if (isOfTheKind(next))
            return true;
    }
    return false;
}

/// From the entry of a call to its exit, with this error as its result.
void failCall(Tracee& run, int error, StrikeLog& log) {
    const long number = run.call().number;
    if (reads(number))
        log.noteUnread(run.object());
    if (number == SYS_brk) {
        failToMoveEnd(run);
        return;
    }
    if (!releases(number))
        run.skipCall();
    if (run.goOn())
        run.setResult(-error);
}

}  // namespace

std::string nameOf(const Position& position) {
    return std::to_string(position.call) +
           (position.look == 0 ? "" : "." + std::to_string(position.look));
}

std::vector<Call> callsOfRun() {
    std::vector<Call> calls;
    Tracee run(loseStreams);
    do
        calls.push_back(run.call());
    while (run.goToNext());
    return calls;
}

int observeRun(const Look& look) {
    Tracee run(loseStreams);
    while (run.goToNext())
        look(run.call());
    return run.end();
}

void observeUntil(const Position& end, const Look& look) {
    Tracee run(loseStreams);
    while (run.goToNext() && run.position() < end)
        look(run.call());
}

FaultyRun killAt(const Position& position, Moment moment) {
    return disturb(position, [moment](Tracee& run, StrikeLog& /*log*/) {
        if (moment == Moment::exit)
            (void)run.goOn();
        run.kill();
        return true;
    });
}

FaultyRun failAt(const Position& position, int error) {
    return failFrom(position, error, 0, [](const Call&) { return false; });
}

FaultyRun failFrom(const Position& position, int error, std::size_t further,
                   const std::function<bool(const Call&)>& isOfTheKind, const Look& look) {
    return disturb(position, [&](Tracee& run, StrikeLog& log) {
        if (!run.call().mayFail)
            return false;
        failCall(run, error, log);
        for (std::size_t left = further; left > 0 && goTo(run, isOfTheKind, look); --left)
            failCall(run, error, log);
        while (look && run.goToNext())
            look(run.call());
        return true;
    });
}

}  // namespace corvo::faults
