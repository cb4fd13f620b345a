// The smallest delivery agent: it reads a delivery file whole and does what its lines say.

#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test {

/// Whose mail is delivered, and where to.
struct Recipient {
    std::string home;
    std::string address;
    bool delivers;
    std::vector<std::string> forwards;  // lines, sorted
};

/// What the lines of a delivery file do to a message.
struct Instructions {
    std::vector<std::string> deliveries;  // "| program" and "./Maildir/"
    std::vector<std::string> forwards;    // sorted
    std::string objection;                // to lines that are none; empty when there is none

    explicit Instructions(const std::string& text) {
        if (!text.ends_with("\n"))
            objection = "its last line is not whole";
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            take(line);
        std::sort(forwards.begin(), forwards.end());
    }

    /// What becomes of a message that should not, or an empty text.
    std::string objectionFor(const Recipient& recipient) const {
        if (!objection.empty())
            return objection;
        if (deliveries.size() != (recipient.delivers ? 1 : 0))
            return "it delivers " + std::to_string(deliveries.size()) + " times";
        if (forwards != recipient.forwards)
            return "it forwards " + std::to_string(forwards.size()) + " times, or elsewhere";
        return {};
    }

private:
    void take(const std::string& line) {
        if (line.starts_with("&"))
            forwards.push_back(line);
        else if (line.starts_with("./") || (line.starts_with("|") && line != "| true"))
            deliveries.push_back(line);
        else if (line != "| true")
            objection = "there is a line '" + line + "'";
    }
};

/// Delivers messages that are told apart by their numbers. Throws std::system_error when it cannot
/// do its work.
class DeliveryReader {
public:
    /// Delivers a new message. False when it is not where the recipient's mail should go: see
    /// complaint().
    bool deliver(const Recipient& recipient) {
        const int number = ++messages_;
        const std::string text = contentsOf(recipient.home + "/.qmail");
        const Instructions instructions(text);
        complaint_ = instructions.objectionFor(recipient);
        for (const std::string& line : instructions.deliveries)
            if (!follow(line, recipient, number))
                complaint_ += "'" + line + "' fails: " + contentsOf(AGENT_LOG);
        if (complaint_.empty())
            return true;
        complaint_ = recipient.home + "/.qmail: " + complaint_ + "; it is:\n" + text;
        return false;
    }

    const std::string& complaint() const { return complaint_; }
    int messages() const { return messages_; }

    /// How many messages went through programs.
    int programs() const { return programs_; }

    /// The numbers of all messages that were delivered into the mailbox, sorted.
    std::vector<int> deliveredTo(const Recipient& recipient) const {
        const auto found = delivered_.find(recipient.home);
        return found == delivered_.end() ? std::vector<int>{} : found->second;
    }

    /// The numbers of all messages that lie in the mailbox, sorted.
    static std::vector<int> foundIn(const Recipient& recipient) {
        std::vector<int> numbers;
        for (const char* const maildir : {"/Maildir/new/", "/Maildir/cur/"}) {
            const std::string folder = recipient.home + maildir;
            for (const std::string& name : namesIn(folder))
                numbers.push_back(numberOf(contentsOf(folder + name)));
        }
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    }

private:
    static inline const std::string MESSAGE = "/run/message";
    static inline const std::string AGENT_LOG = "/run/agent.log";
    static inline const std::string SUBJECT = "Subject: message ";

    static int numberOf(const std::string& message) {
        const std::size_t at = message.find(SUBJECT);
        return at == std::string::npos ? 0 : std::stoi(message.substr(at + SUBJECT.size()));
    }

    bool follow(const std::string& line, const Recipient& recipient, int number) {
        const std::string message = SUBJECT + std::to_string(number) + "\n\nfor you\n";
        const bool done = line.starts_with("|") ? runProgram(line.substr(1), recipient, message)
                                                : store(line, recipient, message, number);
        if (done)
            delivered_[recipient.home].push_back(number);
        return done;
    }

    bool store(const std::string& maildir, const Recipient& recipient, const std::string& message,
               int number) {
        const std::string folder = recipient.home + "/" + maildir;
        const std::string name = std::to_string(number) + ".reader";
        writeFile(folder + "tmp/" + name, message, POPUSER_UID, POPUSER_GID, 0600);
        return std::rename((folder + "tmp/" + name).c_str(), (folder + "new/" + name).c_str()) == 0;
    }

    // In the home and with the rights of the mailbox's owner.
    bool runProgram(const std::string& command, const Recipient& recipient,
                    const std::string& message) {
        ++programs_;
        writeFile(MESSAGE, message);
        const pid_t child = ::fork();
        if (child < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (child == 0)
            becomeProgram(command.c_str(), recipient);
        int status = -1;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return status == 0;
    }

    [[noreturn]] static void becomeProgram(const char* command, const Recipient& recipient) {
        ::dup2(::open(MESSAGE.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        const int log = ::open(AGENT_LOG.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        if (::setgroups(0, nullptr) == 0 &&
            ::setresgid(POPUSER_GID, POPUSER_GID, POPUSER_GID) == 0 &&
            ::setresuid(POPUSER_UID, POPUSER_UID, POPUSER_UID) == 0 &&
            ::chdir(recipient.home.c_str()) == 0 &&
            ::setenv("DELIVERED_TO", recipient.address.c_str(), 1) == 0)
            ::execl("/bin/sh", "sh", "-c", command, nullptr);
        ::_exit(127);
    }

    int messages_ = 0;
    int programs_ = 0;
    std::map<std::string, std::vector<int>> delivered_;  // by home
    std::string complaint_;                              // about the last message
};

}  // namespace corvo::test
