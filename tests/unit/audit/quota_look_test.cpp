#include "audit/quota_look.h"

#include <fcntl.h>

#include "tests/unit/audit/look_fixture.h"
#include "utils/guards.h"

namespace corvo::audit::test {

namespace {

using corvo::test::POPUSER_GID;
using corvo::test::POPUSER_UID;
using corvo::test::writeFile;
using Texts = std::vector<std::string>;

constexpr long long QUOTA = 5000;
const std::string RIGHT = "5000S,0C\n           5           1\n";

class QuotaLookTest : public LookTest {
protected:
    QuotaLookTest() {
        for (const char* path : {"/Maildir", "/Maildir/new", "/Maildir/cur", "/Maildir/tmp"})
            makeFolder(path);
        writeFile(HOME + "/Maildir/cur/1.host,S=5:2,", "first");
        put(RIGHT);
    }
    ~QuotaLookTest() override { (void)!::chdir("/"); }
    QuotaLookTest(const QuotaLookTest&) = delete;
    QuotaLookTest& operator=(const QuotaLookTest&) = delete;

    static void put(const std::string& text) {
        writeFile(FILE, text, POPUSER_UID, POPUSER_GID, 0644);
    }

    Texts look(long long quota = QUOTA) {
        items.clear();
        const UniqueFd home(::open(HOME.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        stage = lookAtMaildirsize(items, about, home.get(), quota, means, recount, canWrite);
        return texts(items);
    }

    inline static const std::string FILE = HOME + "/Maildir/maildirsize";

    bool recount = true;
    bool canWrite = true;
    QuotaStage stage = QuotaStage::fails;
};

TEST_F(QuotaLookTest, RightFileHasNoItem) {
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(stage, QuotaStage::goesOn);
}

TEST_F(QuotaLookTest, LinesThatAgentsHaveAddedAreNoFault) {
    put("5000S,0C\n           1           2\n           4          -1\n");
    EXPECT_THAT(look(), IsEmpty());
}

TEST_F(QuotaLookTest, HeaderWithoutMessageLimitIsNoFault) {
    put("5000S\n           5           1\n");
    EXPECT_THAT(look(), IsEmpty());
}

TEST_F(QuotaLookTest, MissingFileIsNamed) {
    ASSERT_EQ(::unlink(FILE.c_str()), 0);
    EXPECT_THAT(look(), ElementsAre("maildirsize: is missing, -, - [--all]"));
    EXPECT_EQ(stage, QuotaStage::goesOn);
}

TEST_F(QuotaLookTest, DamagedFilesAreNamed) {
    for (const std::string text : {"", "5000S,0C", "-1S,0C\n", "5000S,0C\nabc\n"}) {
        put(text);
        EXPECT_THAT(look(), ElementsAre("maildirsize: is damaged, -, - [--all]")) << text;
    }
}

TEST_F(QuotaLookTest, OwnerGroupAndModeAreNamed) {
    writeFile(FILE, RIGHT, 0, 0, 0600);
    EXPECT_THAT(look(), ElementsAre("maildirsize: has another owner, popuser, root [--all]",
                                    "maildirsize: has another group, popuser, root [--all]",
                                    "maildirsize: has another mode, 0644, 0600 [--all]"));
}

TEST_F(QuotaLookTest, OtherLimitsAreNamed) {
    EXPECT_THAT(look(7000), ElementsAre("limits: has other limits in its header, 7000S,0C, "
                                        "5000S,0C [--all]"));
}

TEST_F(QuotaLookTest, NoLimitAndAQuotaOfZeroHaveTheirOwnHeaders) {
    EXPECT_THAT(look(-1), ElementsAre("limits: has other limits in its header, 0S,0C, 5000S,0C "
                                      "[--all]"));
    EXPECT_THAT(look(0), ElementsAre("limits: has other limits in its header, 1S,0C, 5000S,0C "
                                     "[--all]"));
}

TEST_F(QuotaLookTest, AttachmentsAreTakenOffTheLimit) {
    makeFolder("/@attachments");
    writeFile(HOME + "/@attachments/letter/body", std::string(1000, 'x'));
    EXPECT_THAT(look(), ElementsAre("limits: has other limits in its header, 4000S,0C, 5000S,0C "
                                    "[--all]"));
    put("4000S,0C\n           5           1\n");
    EXPECT_THAT(look(), IsEmpty());
}

TEST_F(QuotaLookTest, OtherSumIsNamedWhereMessagesAreCounted) {
    put("5000S,0C\n          99           2\n");
    EXPECT_THAT(look(), ElementsAre("usage: has another sum than the messages (bytes, messages), 5 "
                                    "1, 99 2 [--all]"));
    recount = false;
    EXPECT_THAT(look(), IsEmpty());
}

TEST_F(QuotaLookTest, SumWithoutTrashIsNoFault) {
    makeFolder("/Maildir/.Trash");
    makeFolder("/Maildir/.Trash/cur");
    writeFile(HOME + "/Maildir/.Trash/cur/2.host,S=7:2,", "trash");
    EXPECT_THAT(look(), IsEmpty());
    put("5000S,0C\n          12           2\n");
    EXPECT_THAT(look(), IsEmpty());
    put("5000S,0C\n           7           1\n");
    EXPECT_THAT(look(), ElementsAre("usage: has another sum than the messages (bytes, messages), "
                                    "12 2, 7 1 [--all]"));
}

TEST_F(QuotaLookTest, WhatIsNoFileIsReplacedUnlessADirectory) {
    ASSERT_EQ(::unlink(FILE.c_str()), 0);
    ASSERT_EQ(::mkfifo(FILE.c_str(), 0644), 0);
    EXPECT_THAT(look(), ElementsAre("maildirsize: is no regular file, -, - [--all]"));
    ASSERT_EQ(::unlink(FILE.c_str()), 0);
    corvo::test::makeLink("/etc/passwd", FILE);
    EXPECT_THAT(look(), ElementsAre("maildirsize: is no regular file, -, - [--all]"));
    ASSERT_EQ(::unlink(FILE.c_str()), 0);
    corvo::test::makeDirectory(FILE);
    EXPECT_THAT(look(), ElementsAre("maildirsize: is a directory, -, - [none]"));
    EXPECT_EQ(stage, QuotaStage::fails);
}

TEST_F(QuotaLookTest, WithoutPlaceForANewFileOnlyARightOneLetsARunGoOn) {
    canWrite = false;
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(stage, QuotaStage::goesOn);
    EXPECT_THAT(look(7000), ElementsAre("limits: has other limits in its header, 7000S,0C, "
                                        "5000S,0C [none]"));
    EXPECT_EQ(stage, QuotaStage::fails);
}

}  // namespace

}  // namespace corvo::audit::test
