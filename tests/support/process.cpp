#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace corvo::test {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    ~Pipe() {
        closeWriteEnd();
        ::close(readEnd);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void closeWriteEnd() {
        if (writeEnd >= 0)
            ::close(writeEnd);
        writeEnd = -1;
    }
};

// True while the pipe may still give something.
bool drain(int fd, std::string& text) {
    std::array<char, 65536> piece{};
    const ssize_t got = ::read(fd, piece.data(), piece.size());
    if (got > 0)
        text.append(piece.data(), static_cast<std::size_t>(got));
    return got > 0 || (got < 0 && errno == EINTR);
}

void collect(pid_t child, Pipe& out, Pipe& err, ProcessResult& result, int timeoutSeconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    std::array<pollfd, 2> ends{{{out.readEnd, POLLIN, 0}, {err.readEnd, POLLIN, 0}}};
    const std::array<std::string*, 2> texts{&result.out, &result.err};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || ::poll(ends.data(), ends.size(), static_cast<int>(left)) == 0) {
            ::kill(child, SIGKILL);
            result.timedOut = true;
            return;
        }
        for (std::size_t i = 0; i < ends.size(); ++i)
            if (ends[i].fd >= 0 && ends[i].revents != 0 && !drain(ends[i].fd, *texts[i]))
                ends[i].fd = -1;
    }
}

int waitFor(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void flushOwnStreams() {
    std::cout.flush();
    (void)std::fflush(nullptr);
}

ProcessResult runChild(const std::function<void()>& body, int timeoutSeconds) {
    Pipe out;
    Pipe err;
    flushOwnStreams();
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::dup2(nothing, STDIN_FILENO);
        ::dup2(out.writeEnd, STDOUT_FILENO);
        ::dup2(err.writeEnd, STDERR_FILENO);
        body();
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): the way a program ends is part of the test
    }
    out.closeWriteEnd();
    err.closeWriteEnd();
    ProcessResult result;
    collect(child, out, err, result, timeoutSeconds);
    result.status = waitFor(child);
    return result;
}

}  // namespace

ProcessResult run(const std::vector<std::string>& arguments, const Environment& environment,
                  int timeoutSeconds) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    return runChild(
        [&] {
            for (const auto& [name, value] : environment)
                ::setenv(name.c_str(), value.c_str(), 1);
            ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
            ::execvp(argv[0], argv.data());
            std::perror(argv[0]);
            ::_exit(127);
        },
        timeoutSeconds);
}

ProcessResult runForked(const std::function<void()>& body, int timeoutSeconds) {
    return runChild(body, timeoutSeconds);
}

std::string preloadable(const std::string& library) {
    const std::filesystem::path copy = "/run" / std::filesystem::path(library).filename();
    std::filesystem::copy_file(library, copy, std::filesystem::copy_options::overwrite_existing);
    return copy;
}

std::string mailRebuildBinary() {
    return CORVO_MAIL_REBUILD;
}

std::string mailAuditBinary() {
    return CORVO_MAIL_AUDIT;
}

}  // namespace corvo::test
