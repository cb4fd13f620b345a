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
#include <string>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/installation.h"

namespace corvo::test {

/// What docs/DELIVERY.md tells an administrator to write.
inline const std::string DOVECOT_CONF =
    "base_dir = /run/dovecot\n"
    "state_dir = /run/dovecot\n"
    "log_path = /dev/stderr\n"
    "stats_writer_socket_path =\n"
    "protocols =\n"
    "ssl = no\n"
    "first_valid_uid = 1\n"
    "postmaster_address = postmaster@example.com\n"
    "mail_location = maildir:~/Maildir\n"
    "mail_plugins = quota\n"
    "plugin {\n"
    "  quota = maildir:User quota\n"
    "  quota_grace = 0\n"
    "}\n"
    "passdb {\n"
    "  driver = static\n"
    "}\n"
    "userdb {\n"
    "  driver = sql\n"
    "  args = /etc/dovecot/userdb.conf\n"
    "}\n"
    "service auth {\n"
    "  unix_listener auth-userdb {\n"
    "    user = popuser\n"
    "  }\n"
    "}\n";

inline const std::string DOVECOT_USERDB_CONF =
    "driver = sqlite\n"
    "connect = " +
    USERDB +
    "\n"
    "user_query = SELECT '/var/qmail/mailnames/%d/%n' AS home, "
    "'popuser' AS uid, 'popuser' AS gid, "
    "CASE WHEN quota='0B' THEN NULL ELSE '*:storage='||quota END AS quota_rule "
    "FROM mailbox_quota WHERE domain_name='%d' AND mailbox_name='%n'\n";

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
        writeFile("/etc/dovecot/dovecot.conf", DOVECOT_CONF);
        writeFile("/etc/dovecot/userdb.conf", DOVECOT_USERDB_CONF);
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
