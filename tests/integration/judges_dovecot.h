// A throw-away Dovecot that lives in the sandbox and finds mailboxes in our user database.

#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace corvo::test {

/// The example that docs/DELIVERY.md gives an administrator under this line.
inline std::string exampleUnder(const std::string& line) {
    const std::string page = contentsOf(CORVO_DELIVERY_PAGE);
    const std::string opening = "\n" + line + "\n\n```\n";
    const auto at = page.find(opening);
    if (at == std::string::npos)
        throw std::runtime_error("no example under: " + line);
    const auto begin = at + opening.size();
    return page.substr(begin, page.find("```\n", begin) - begin);
}

/// Before 2.4 settings had other names, and a limit came from the quota file where none was set.
inline bool isDovecotOfOldDialect() {
    return run({"dovecot", "--version"}).out.starts_with("2.3");
}

/// What a throw-away server needs beside the example.
inline const std::string DOVECOT_SURROUNDINGS =
    "base_dir = /run/dovecot\n"
    "state_dir = /run/dovecot\n"
    "log_path = /dev/stderr\n"
    "stats_writer_socket_path =\n"
    "protocols =\n"
    "ssl = no\n"
    "postmaster_address = postmaster@example.com\n";

inline void configureDovecot() {
    const std::string file = "/etc/dovecot/dovecot.conf";
    if (isDovecotOfOldDialect()) {
        const std::string queries = "/etc/dovecot/userdb.conf";
        writeFile(file, exampleUnder("`" + file + "` of Dovecot 2.3:") + DOVECOT_SURROUNDINGS +
                            "passdb {\n  driver = static\n}\n");
        writeFile(queries, exampleUnder("`" + queries + "` of Dovecot 2.3:"));
    } else {
        writeFile(file, exampleUnder("`" + file + "` of Dovecot 2.4:") + DOVECOT_SURROUNDINGS +
                            "passdb static {\n}\n");
    }
}

/// Where a service manager would listen for a service's "I am ready".
class ReadySocket {
public:
    static inline const std::string PATH = "/run/ready";

    ReadySocket() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        PATH.copy(address.sun_path, sizeof address.sun_path - 1);
        const timeval patience{.tv_sec = 30, .tv_usec = 0};
        check(::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
        check(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    ~ReadySocket() { ::close(fd_); }
    ReadySocket(const ReadySocket&) = delete;
    ReadySocket& operator=(const ReadySocket&) = delete;

    /// Throws when nobody is ready in time.
    void await() const {
        char text[256];
        check(::recv(fd_, text, sizeof text, 0) < 0 ? -1 : 0);
    }

private:
    static void check(int result) {
        if (result != 0)
            throw std::system_error(errno, std::generic_category(), PATH);
    }

    int fd_;
};

/// Runs from the constructor, which returns when Dovecot answers, to the destructor. Its log is
/// /run/dovecot.log. One at a time.
class Dovecot {
public:
    Dovecot() {
        configureDovecot();
        const ReadySocket ready;
        start();
        try {
            ready.await();
        } catch (...) {
            stop();
            throw;
        }
    }
    ~Dovecot() { stop(); }
    Dovecot(const Dovecot&) = delete;
    Dovecot& operator=(const Dovecot&) = delete;

private:
    void start() {
        master_ = ::fork();
        if (master_ < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (master_ > 0)
            return;
        // The test may be ended from outside.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int log = ::open("/run/dovecot.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::setenv("NOTIFY_SOCKET", ReadySocket::PATH.c_str(), 1);
        ::execl("/usr/sbin/dovecot", "dovecot", "-F", nullptr);
        ::_exit(127);
    }

    // The master ends its own children first.
    void stop() const {
        ::kill(master_, SIGTERM);
        while (::waitpid(master_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    pid_t master_ = -1;
};

}  // namespace corvo::test
