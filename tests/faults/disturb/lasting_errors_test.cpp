#include "tests/faults/disturb/lasting_errors.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

namespace corvo::faults {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

using Names = std::set<std::string>;

Call call(long number, int openFlags = 0) {
    Call made;
    made.number = number;
    made.openFlags = openFlags;
    return made;
}

Call message() {
    Call said = call(SYS_write);
    said.speaks = true;
    return said;
}

/// Of the errors that last for two calls.
Names namesAt(const Call& at) {
    Names names;
    for (const LastingError& error : lastingErrorsAt(at))
        if (error.further == 1)
            names.insert(error.name.substr(0, error.name.find('-')));
    return names;
}

LastingError errorAt(const Call& at, const std::string& name) {
    for (const LastingError& error : lastingErrorsAt(at))
        if (error.name == name)
            return error;
    ADD_FAILURE() << name;
    return {};
}

TEST(LastingErrors, StrikeCallsThatCanReportThem) {
    EXPECT_EQ(namesAt(call(SYS_openat2, O_RDONLY)), (Names{"EMFILE", "ENFILE", "ENOMEM", "EIO"}));
    EXPECT_EQ(namesAt(call(SYS_openat, O_RDWR)),
              (Names{"EMFILE", "ENFILE", "ENOMEM", "EIO", "EROFS"}));
    EXPECT_EQ(namesAt(call(SYS_openat, O_WRONLY | O_CREAT)),
              (Names{"EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "EIO", "EROFS"}));
    EXPECT_EQ(namesAt(call(SYS_socket)), (Names{"EMFILE", "ENFILE", "ENOMEM"}));
    EXPECT_EQ(namesAt(call(SYS_write)), (Names{"ENOMEM", "ENOSPC", "EIO"}));
    EXPECT_EQ(namesAt(call(SYS_mkdirat)), (Names{"ENOMEM", "ENOSPC", "EIO", "EROFS"}));
    EXPECT_EQ(namesAt(call(SYS_fchown)), (Names{"ENOMEM", "EIO", "EROFS"}));
    EXPECT_EQ(namesAt(call(SYS_newfstatat)), (Names{"ENOMEM", "EIO"}));
}

TEST(LastingErrors, SpareWhatIsSaidAndTheDatabasesConnections) {
    EXPECT_THAT(namesAt(message()), IsEmpty());
    for (const long number : {SYS_connect, SYS_sendto, SYS_recvfrom, SYS_poll})
        EXPECT_THAT(namesAt(call(number)), IsEmpty()) << number;
}

TEST(LastingErrors, LastForTwoCallsForThreeAndForAll) {
    EXPECT_EQ(errorAt(call(SYS_mkdirat), "EROFS-2").further, 1U);
    EXPECT_EQ(errorAt(call(SYS_mkdirat), "EROFS-3").further, 2U);
    EXPECT_GT(errorAt(call(SYS_mkdirat), "EROFS-all").further, 1'000'000U);
    EXPECT_EQ(errorAt(call(SYS_mkdirat), "EROFS-all").number, EROFS);
}

TEST(LastingErrors, ConcernAllThatMeetsTheSameTrouble) {
    const LastingError noDescriptors = errorAt(call(SYS_openat2), "EMFILE-all");
    EXPECT_TRUE(noDescriptors.isConcerned(call(SYS_socket)));
    EXPECT_TRUE(noDescriptors.isConcerned(call(SYS_openat)));
    EXPECT_FALSE(noDescriptors.isConcerned(call(SYS_mkdirat)));
    const LastingError noRoom = errorAt(call(SYS_pwrite64), "ENOSPC-2");
    EXPECT_TRUE(noRoom.isConcerned(call(SYS_mkdirat)));
    EXPECT_TRUE(noRoom.isConcerned(call(SYS_openat2, O_CREAT | O_WRONLY)));
    EXPECT_FALSE(noRoom.isConcerned(call(SYS_openat2, O_WRONLY)));
    EXPECT_FALSE(noRoom.isConcerned(message()));
    const LastingError brokenDisk = errorAt(call(SYS_fchown), "EIO-3");
    EXPECT_TRUE(brokenDisk.isConcerned(call(SYS_fchownat)));
    EXPECT_FALSE(brokenDisk.isConcerned(call(SYS_fchmod)));
    const LastingError brokenWrites = errorAt(call(SYS_write), "EIO-all");
    EXPECT_TRUE(brokenWrites.isConcerned(call(SYS_pwrite64)));
    EXPECT_FALSE(brokenWrites.isConcerned(message()));
}

TEST(LastingErrors, OneOfEachLengthIsTakenAndAllOfThemInTime) {
    Call made = call(SYS_openat, O_WRONLY | O_CREAT);
    Names names;
    for (std::size_t position = 1; position < 4200; position += 300) {
        made.position.call = position;
        const std::vector<LastingError> some = someLastingErrorsAt(made);
        ASSERT_THAT(some, SizeIs(3));
        EXPECT_TRUE(some[0].name.ends_with("-2"));
        EXPECT_TRUE(some[1].name.ends_with("-3"));
        EXPECT_TRUE(some[2].name.ends_with("-all"));
        for (const LastingError& error : some)
            names.insert(error.name);
    }
    EXPECT_THAT(names, SizeIs(18));
    EXPECT_THAT(someLastingErrorsAt(message()), IsEmpty());
}

}  // namespace
}  // namespace corvo::faults
