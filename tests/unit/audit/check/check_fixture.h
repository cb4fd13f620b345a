// What the tests of single checks share.

#pragma once

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "audit/check/check.h"
#include "mail/delivery/delivery_agent.h"
#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"

namespace corvo::test {

using Results = std::vector<std::string>;

/// A result as "verdict|subject|finding|advice".
inline std::string described(const audit::CheckResult& result) {
    static constexpr const char* VERDICTS[] = {"ok", "warning", "problem"};
    return std::string(VERDICTS[static_cast<int>(result.verdict)]) + "|" + result.subject + "|" +
           result.finding + "|" + result.advice;
}

/// A file system of processes as a test wants to have it, in place of the kernel's while it lives.
class ProcessTable {
public:
    ProcessTable() : disk_("/proc", 0) {
        add(1, "init");
        writeFile("/proc/sys/fs/protected_hardlinks", "1\n");
    }

    static void add(int number, const std::string& name) {
        writeFile("/proc/" + std::to_string(number) + "/comm", name + "\n");
    }

private:
    SmallDisk disk_;
};

/// Nothing is printed but what a test declares.
class CheckTest : public LoggingTest {
protected:
    using Check = std::function<void(const audit::CheckSink& sink)>;

    CheckTest() {
        detectedImapPop3Server = DELIVERY_AGENT_UNKNOWN;
        writeFile("/etc/fstab", "");
        std::filesystem::remove("/etc/fuse.conf");
    }

    static Results resultsOf(const Check& check) {
        Results results;
        check([&](const audit::CheckResult& result) { results.push_back(described(result)); });
        return results;
    }

    /// In a process of its own, which `prepare` makes another's.
    static ProcessResult resultsInChild(const Check& check, const std::function<void()>& prepare) {
        return runForked([&] {
            prepare();
            for (const std::string& result : resultsOf(check))
                std::printf("%s\n", result.c_str());
            std::fflush(stdout);
        });
    }
};

}  // namespace corvo::test
