// What is written to line files and delivery files reaches the disk, or is no success.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <string>

#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/line_file.h"

namespace corvo::test {
namespace {

const std::string PATH = "/var/lib/corvo/lines";

class FlushTest : public SandboxTest {
protected:
    FlushTest() { writeFile(PATH, "one\ntwo\n"); }

    /// What a change prints and leaves while data cannot be flushed.
    static std::string outcome(int error, const std::function<int()>& change) {
        const ProcessResult result = runForked([&] {
            failSystemCall(SYS_fdatasync, error);
            const int status = change();
            std::cout << status << (status != 0 && errno == error ? " with its errno" : "");
        });
        return result.out + "\n" + contentsOf(PATH);
    }
};

const auto append = [] { return file_append_line(PATH.c_str(), "three"); };
const auto remove = [] {
    return file_str(PATH.c_str(), "one", FILE_STRINGS_REMOVE, FILE_STRINGS_APPEND);
};

TEST_F(FlushTest, AppendThatCannotBeFlushedIsAWriteThatFailedAndIsTakenBack) {
    EXPECT_EQ(outcome(EIO, append), "Unable to write data into file " + PATH +
                                        ": Input/output error\n\nSystem error 5: Input/output "
                                        "error\n1 with its errno\none\ntwo\n");
}

TEST_F(FlushTest, RewriteThatCannotBeFlushedLeavesTheOldFile) {
    EXPECT_EQ(outcome(EIO, remove), "Unable to close file " + PATH +
                                        ".tmp: Input/output error\n\nSystem error 5: "
                                        "Input/output error\n1 with its errno\none\ntwo\n");
    EXPECT_FALSE(exists(PATH + ".tmp"));
}

TEST_F(FlushTest, FileSystemThatFlushesNothingIsNoFailure) {
    for (const int error : {EINVAL, ENOSYS, ENOTSUP}) {
        SCOPED_TRACE(error);
        writeFile(PATH, "one\ntwo\n");
        EXPECT_EQ(outcome(error, append), "0\none\ntwo\nthree\n");
        EXPECT_EQ(outcome(error, remove), "0\ntwo\nthree\n");
    }
}

}  // namespace
}  // namespace corvo::test
