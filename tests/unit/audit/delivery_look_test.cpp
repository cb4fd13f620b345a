#include "audit/delivery_look.h"

#include <algorithm>

#include "tests/unit/audit/look_fixture.h"

namespace corvo::audit::test {

namespace {

using corvo::test::DELIVERY_LINE;
using corvo::test::POPUSER_GID;
using corvo::test::POPUSER_UID;
using corvo::test::writeFile;
using Texts = std::vector<std::string>;

const std::string FIRST = "| true\n";
const std::string DELIVERS = FIRST + DELIVERY_LINE + "\n";
const std::string DISCARDS =
    "delivery: discards though the panel says that it shall deliver, " + DELIVERY_LINE + ", -";

class DeliveryLookTest : public LookTest {
protected:
    DeliveryLookTest() {
        about.path = FILE;
        wish.delivers = true;
    }

    static void put(const std::string& text) {
        writeFile(FILE, text, POPUSER_UID, POPUSER_GID, 0600);
    }

    /// The items of a file with that text, in a home that is whole unless told otherwise.
    Texts lookAt(const std::string& text, bool isRestored = true) {
        put(text);
        return look(isRestored);
    }

    Texts look(bool isRestored = true) {
        items.clear();
        lookAtDelivery(items, about, wish, means, isRestored);
        return texts(items);
    }

    inline static const std::string FILE = HOME + "/.qmail";

    DeliveryWish wish;
};

// --- a file that is right

TEST_F(DeliveryLookTest, FileThatDeliversAsAskedHasNoItem) {
    EXPECT_THAT(lookAt(DELIVERS), IsEmpty());
}

TEST_F(DeliveryLookTest, FileThatForwardsAsAskedHasNoItem) {
    wish.forwards = {"&b@c.example", "&d@e.example"};
    EXPECT_THAT(lookAt(DELIVERS + "&b@c.example\n&d@e.example\n"), IsEmpty());
}

TEST_F(DeliveryLookTest, FileThatDiscardsAsAskedHasNoItem) {
    wish.delivers = false;
    EXPECT_THAT(lookAt(FIRST), IsEmpty());
}

// --- each way to be wrong

TEST_F(DeliveryLookTest, MissingFileIsNamedOnce) {
    EXPECT_THAT(look(), ElementsAre("delivery-file: is missing, -, - [--all]"));
}

TEST_F(DeliveryLookTest, OwnerGroupAndModeAreNamed) {
    writeFile(FILE, DELIVERS, 0, 0, 0644);
    EXPECT_THAT(look(), ElementsAre("delivery-file: has another owner, popuser, root [--all]",
                                    "delivery-file: has another group, popuser, root [--all]",
                                    "delivery-file: has another mode, 0600, 0644 [--all]"));
}

TEST_F(DeliveryLookTest, FurtherNameIsNamed) {
    put(DELIVERS);
    ASSERT_EQ(::link(FILE.c_str(), (HOME + "/second").c_str()), 0);
    EXPECT_THAT(look(), ElementsAre("delivery-file: has further names, 1, 2 [--all]"));
}

TEST_F(DeliveryLookTest, MailboxThatDiscardsIsNamed) {
    EXPECT_THAT(lookAt(FIRST), ElementsAre(DISCARDS + " [--all]"));
}

TEST_F(DeliveryLookTest, MailboxThatDeliversUnaskedIsNamed) {
    wish.delivers = false;
    EXPECT_THAT(lookAt(DELIVERS),
                ElementsAre("delivery: delivers though the panel says that it shall not, -, " +
                            DELIVERY_LINE + " [--all]"));
}

TEST_F(DeliveryLookTest, OldLineIsNamed) {
    EXPECT_THAT(lookAt(FIRST + "./Maildir/\n"),
                ElementsAre("delivery: delivers by an old line, " + DELIVERY_LINE +
                            ", ./Maildir/ [--all]"));
}

TEST_F(DeliveryLookTest, EachMissingForwardAndSurplusLineIsNamed) {
    wish.forwards = {"&b@c.example", "&d@e.example"};
    EXPECT_THAT(
        lookAt(DELIVERS + "&old@c.example\n# mine\n"),
        ElementsAre("forward: has a forward missing, &b@c.example, - [--all]",
                    "forward: has a forward missing, &d@e.example, - [--all]",
                    "surplus-line: has a line that the panel does not ask for, -, "
                    "&old@c.example [--all]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine [--all]"));
}

TEST_F(DeliveryLookTest, MissingFirstLineIsNamed) {
    EXPECT_THAT(lookAt(DELIVERY_LINE + "\n"),
                ElementsAre("line-order: has its first line missing, | true, - [--all]"));
}

TEST_F(DeliveryLookTest, OtherOrderIsNamed) {
    EXPECT_THAT(
        lookAt(DELIVERY_LINE + "\n" + FIRST),
        ElementsAre("line-order: has its lines in another order, or more than once, -, - [--all]"));
}

TEST_F(DeliveryLookTest, LineThatStandsTwiceIsNamed) {
    EXPECT_THAT(
        lookAt(DELIVERS + DELIVERY_LINE + "\n"),
        ElementsAre("line-order: has its lines in another order, or more than once, -, - [--all]"));
}

TEST_F(DeliveryLookTest, LastLineWithoutEndIsNamed) {
    EXPECT_THAT(lookAt(FIRST + DELIVERY_LINE),
                ElementsAre("line-order: has no line end after its last line, -, - [--all]"));
}

TEST_F(DeliveryLookTest, FileTooLongToBeReadIsNamed) {
    EXPECT_THAT(lookAt(std::string(static_cast<std::size_t>(mail::LARGEST_DELIVERY_FILE) + 1, '#')),
                ElementsAre("delivery-file: is longer than 1 MiB, -, - [--all]"));
}

// --- lines that have two meanings

TEST_F(DeliveryLookTest, ForwardThatIsTheDeliveryLineIsNoDelivery) {
    means.deliveryLine = "&all@c.example";
    wish.delivers = false;
    wish.forwards = {"&all@c.example"};
    EXPECT_THAT(lookAt(FIRST + "&all@c.example\n"), IsEmpty());
}

TEST_F(DeliveryLookTest, DeliveryLineThatIsNamedAsForwardStandsOnce) {
    means.deliveryLine = "&all@c.example";
    wish.forwards = {"&b@c.example", "&all@c.example"};
    EXPECT_THAT(lookAt(FIRST + "&b@c.example\n&all@c.example\n"), IsEmpty());
}

TEST_F(DeliveryLookTest, FirstLineIsNoDeliveryThoughItIsTheDeliveryLine) {
    means.deliveryLine = "| true";
    wish.delivers = false;
    EXPECT_THAT(lookAt(FIRST), IsEmpty());
}

// --- what a run does not come to

const std::string NO_ADDRESS = "forward: cannot forward to what is no address, nowhere, - [none]";

std::string unreached(const std::string& line) {
    return "forward: gets no forward behind one that is to no address, " + line + ", - [none]";
}

std::string lost(const std::string& line) {
    return "surplus-line: has a forward that a run removes: one before it is to no address, -, " +
           line + " [--all]";
}

class UnreachedForwardsTest : public DeliveryLookTest {
protected:
    UnreachedForwardsTest() {
        wish.forwards = {"&b@c.example"};
        wish.noAddresses = {"nowhere"};
        wish.unreached = {"&d@e.example"};
    }
};

TEST_F(UnreachedForwardsTest, StayMissing) {
    EXPECT_THAT(lookAt(DELIVERS + "&b@c.example\n"),
                ElementsAre(NO_ADDRESS, unreached("&d@e.example")));
}

TEST_F(UnreachedForwardsTest, ThatAreThereAreRemoved) {
    EXPECT_THAT(lookAt(DELIVERS + "&b@c.example\n&d@e.example\n&old@c.example\n"),
                ElementsAre("surplus-line: has a line that the panel does not ask for, -, "
                            "&old@c.example [--all]",
                            NO_ADDRESS, unreached("&d@e.example"), lost("&d@e.example")));
}

TEST_F(UnreachedForwardsTest, StayInAFileThatIsKept) {
    EXPECT_THAT(lookAt(DELIVERS + "&d@e.example\n&b@c.example\n", false), ElementsAre(NO_ADDRESS));
    means.hasAgent = false;
    EXPECT_THAT(lookAt(DELIVERS + "&d@e.example\n&b@c.example\n"), ElementsAre(NO_ADDRESS));
}

TEST_F(UnreachedForwardsTest, DoNotHideAnotherOrder) {
    EXPECT_THAT(lookAt(FIRST + "&b@c.example\n" + DELIVERY_LINE + "\n"),
                ElementsAre("line-order: has its lines in another order, or more than once, -, - "
                            "[--all]",
                            NO_ADDRESS, unreached("&d@e.example")));
}

TEST_F(UnreachedForwardsTest, AreNoneWhereTheyAreNamedBefore) {
    wish.unreached = {"&b@c.example"};
    EXPECT_THAT(lookAt(DELIVERS + "&b@c.example\n"), ElementsAre(NO_ADDRESS));
    EXPECT_THAT(lookAt(DELIVERS),
                ElementsAre("forward: has a forward missing, &b@c.example, - [--all]", NO_ADDRESS));
}

TEST_F(UnreachedForwardsTest, AreToldOnce) {
    wish.noAddresses = {"nowhere", "", "nowhere"};
    wish.unreached = {"&d@e.example", "&d@e.example"};
    EXPECT_THAT(lookAt(DELIVERS + "&d@e.example\n&b@c.example\n"),
                ElementsAre(NO_ADDRESS, "forward: cannot forward to what is no address, , - [none]",
                            unreached("&d@e.example"), lost("&d@e.example")));
}

TEST_F(UnreachedForwardsTest, AreNamedWithAMissingFile) {
    EXPECT_THAT(look(), ElementsAre("delivery-file: is missing, -, - [--all]", NO_ADDRESS,
                                    unreached("&d@e.example")));
}

TEST_F(DeliveryLookTest, ForwardsOfAPanelThatWasNotReadToItsEndAreNotCalledUnasked) {
    wish.isReadWhole = false;
    EXPECT_THAT(
        lookAt(DELIVERS + "&old@c.example\n# mine\n"),
        ElementsAre("surplus-line: has a forward that the panel, as far as it was read, does not "
                    "ask for, -, &old@c.example [--all]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine [--all]"));
}

// --- what no run gets past

TEST_F(DeliveryLookTest, WhatARunCannotReadIsNotRepaired) {
    corvo::test::makeLink("/etc/passwd", FILE, POPUSER_UID);
    EXPECT_THAT(look(), ElementsAre("delivery-file: is a link that is refused, -, - [none]"));
    ASSERT_EQ(::unlink(FILE.c_str()), 0);
    corvo::test::makeDirectory(FILE);
    EXPECT_THAT(look(), ElementsAre("delivery-file: is no regular file, -, - [none]"));
}

TEST_F(DeliveryLookTest, HardLinkOfAnotherIsNotRepaired) {
    writeFile(HOME + "/second", DELIVERS, 0, 0, 0600);
    ASSERT_EQ(::link((HOME + "/second").c_str(), FILE.c_str()), 0);
    EXPECT_THAT(look(), ElementsAre("delivery-file: is a hard link that is refused, -, - [none]"));
}

TEST_F(DeliveryLookTest, WithoutAgentDeliveryIsNotRepairedButTheFileIs) {
    means.hasAgent = false;
    EXPECT_THAT(look(),
                ElementsAre("delivery-file: is missing, -, - [--all]", DISCARDS + " [none]"));
    EXPECT_THAT(lookAt(FIRST), ElementsAre(DISCARDS + " [none]"));
}

TEST_F(DeliveryLookTest, WithoutAgentFileThatDeliversKeepsItsLines) {
    means.hasAgent = false;
    EXPECT_THAT(
        lookAt("./Maildir/\n# mine\n"),
        ElementsAre("delivery: delivers by an old line, " + DELIVERY_LINE + ", ./Maildir/ [none]",
                    "line-order: has its first line missing, | true, - [none]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine "
                    "[none]"));
}

TEST_F(DeliveryLookTest, FileThatIsKeptGetsOwnerAndModeButKeepsItsNames) {
    means.hasAgent = false;
    writeFile(FILE, DELIVERS + "# mine\n", POPUSER_UID, POPUSER_GID, 0644);
    ASSERT_EQ(::link(FILE.c_str(), (HOME + "/second").c_str()), 0);
    EXPECT_THAT(look(),
                ElementsAre("delivery-file: has another mode, 0600, 0644 [--all]",
                            "delivery-file: has further names, 1, 2 [none]",
                            "surplus-line: has a line that the panel does not ask for, -, # mine "
                            "[none]"));
}

TEST_F(DeliveryLookTest, WithoutLocksForwardsAreNotRepaired) {
    means.hasLocks = false;
    wish.forwards = {"&b@c.example"};
    EXPECT_THAT(lookAt(DELIVERS),
                ElementsAre("forward: has a forward missing, &b@c.example, - [none]"));
    wish = {};
    EXPECT_THAT(lookAt(FIRST + "# mine\n"),
                ElementsAre("surplus-line: has a line that the panel does not ask for, -, # mine "
                            "[--all]"));
}

TEST_F(DeliveryLookTest, DirectoryInPlaceOfTheLockIsLikeNoLocks) {
    const UniqueCString lock(mk_flock_path(FILE.c_str()));
    corvo::test::makeDirectory(lock.get());
    wish.forwards = {"&b@c.example"};
    EXPECT_THAT(lookAt(DELIVERS),
                ElementsAre("forward: has a forward missing, &b@c.example, - [none]"));
}

TEST_F(DeliveryLookTest, HardLinkOfRootsIsRefusedOnceARunHasGivenTheHomeAway) {
    put("# mine\n");
    ASSERT_EQ(::chown(FILE.c_str(), 0, 0), 0);
    ASSERT_EQ(::link(FILE.c_str(), (HOME + "/second").c_str()), 0);
    ASSERT_EQ(::chown(HOME.c_str(), 0, 0), 0);
    EXPECT_THAT(look(), ElementsAre("delivery-file: is a hard link that is refused, -, - [none]"));
    ASSERT_EQ(::unlink((HOME + "/second").c_str()), 0);
    EXPECT_THAT(look().front(), "delivery-file: has another owner, popuser, root [--all]");
}

TEST_F(DeliveryLookTest, WithoutDefaultLineAKnownOneServes) {
    means.deliveryLine.reset();
    EXPECT_THAT(lookAt(FIRST + "./Maildir/\n"), IsEmpty());
    EXPECT_THAT(
        lookAt(FIRST),
        ElementsAre("delivery: discards though the panel says that it shall deliver, -, - [none]"));
}

TEST_F(DeliveryLookTest, WithoutDefaultLineOneThatMayHaveBeenItServes) {
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        means.deliveryLine = none != nullptr ? std::optional<std::string>(none) : std::nullopt;
        EXPECT_THAT(lookAt(FIRST + "| own ./Maildir\n"), IsEmpty());
        EXPECT_THAT(lookAt(FIRST + "| own ./Maildir\n# mine\n"),
                    ElementsAre("surplus-line: has a line that the panel does not ask for, -, "
                                "# mine [none]"));
    }
}

TEST_F(DeliveryLookTest, EmptyDefaultLineIsAddedLikeAnyOther) {
    means.deliveryLine = "";
    EXPECT_THAT(
        lookAt(FIRST + "# mine\n"),
        ElementsAre("delivery: discards though the panel says that it shall deliver, -, - [none]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine [--all]",
                    "surplus-line: has a line that the panel does not ask for, -,  [none]"));
}

TEST_F(DeliveryLookTest, WithoutDefaultLineEmptiedFileStillLosesItsFurtherNames) {
    means.deliveryLine.reset();
    put("# mine\n");
    ASSERT_EQ(::link(FILE.c_str(), (HOME + "/second").c_str()), 0);
    EXPECT_THAT(
        look(),
        ElementsAre("delivery-file: has further names, 1, 2 [--all]",
                    "delivery: discards though the panel says that it shall deliver, -, - [none]",
                    "line-order: has its first line missing, | true, - [--all]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine [--all]"));
    means.hasAgent = false;
    EXPECT_THAT(look().front(), "delivery-file: has further names, 1, 2 [none]");
}

TEST_F(DeliveryLookTest, InAHomeThatIsNotWholeOnlyForwardsAreAdded) {
    wish.forwards = {"&b@c.example"};
    EXPECT_THAT(
        lookAt(FIRST + "# mine\n", false),
        ElementsAre(DISCARDS + " [none]", "forward: has a forward missing, &b@c.example, - [--all]",
                    "surplus-line: has a line that the panel does not ask for, -, # mine "
                    "[none]"));
}

TEST_F(DeliveryLookTest, FileThatAForwardMakesTooLongIsNamed) {
    wish.forwards = {"&b@c.example"};
    const std::size_t rest =
        static_cast<std::size_t>(mail::LARGEST_DELIVERY_FILE) - DELIVERS.size() - 1;
    lookAt(DELIVERS + std::string(rest, '#') + "\n", false);
    EXPECT_THAT(texts(items).back(), "delivery-file: is longer than 1 MiB, -, - [none]");
}

TEST_F(DeliveryLookTest, FileThatAForwardMakesTooLongBeforeTheOldOnesAreDroppedIsNamed) {
    wish.forwards = {"&b@c.example"};
    const std::size_t rest =
        static_cast<std::size_t>(mail::LARGEST_DELIVERY_FILE) - DELIVERS.size() - 2;
    lookAt(DELIVERS + "&" + std::string(rest, 'x') + "\n");
    EXPECT_THAT(texts(items).back(), "delivery-file: is longer than 1 MiB, -, - [none]");
}

// --- many lines: what compares each with each takes minutes

constexpr std::size_t MANY = 40'000;

// "&PREFIX1", "&PREFIX2" and so on.
Texts manyForwards(const std::string& prefix, std::size_t count) {
    Texts lines;
    for (std::size_t i = 0; i < count; ++i)
        lines.push_back("&" + prefix + std::to_string(i));
    return lines;
}

std::string textOf(const Texts& lines) {
    return mail::textOf({lines.begin(), lines.end()});
}

TEST_F(DeliveryLookTest, ManyLinesThatStayAreComparedInTime) {
    means.hasAgent = false;
    lookAt(DELIVERS + textOf(manyForwards("", MANY)));
    ASSERT_EQ(items.size(), MANY);
    EXPECT_EQ(texts(items).back(),
              "surplus-line: has a line that the panel does not ask for, -, &39999 [none]");
}

TEST_F(DeliveryLookTest, ManyForwardsThatComeAndGoAreComparedInTime) {
    wish.forwards = manyForwards("", MANY);
    lookAt(DELIVERS + textOf(manyForwards("old", MANY / 2)) + textOf(manyForwards("", MANY / 4)));
    EXPECT_EQ(items.size(), MANY / 2 + MANY - MANY / 4);
    EXPECT_TRUE(std::all_of(items.begin(), items.end(),
                            [](const Item& item) { return item.repair == Repair::all; }));
}

// --- a home that is to come

TEST_F(DeliveryLookTest, NewHomeWithAllMeansIsRight) {
    wish.forwards = {"&b@c.example"};
    lookAtDeliveryToCome(items, about, wish, means);
    EXPECT_THAT(texts(items), IsEmpty());
}

TEST_F(DeliveryLookTest, WhatANewHomeWillLackIsNamed) {
    wish.forwards = {"&b@c.example"};
    means.hasAgent = false;
    lookAtDeliveryToCome(items, about, wish, means);
    EXPECT_THAT(texts(items), ElementsAre(DISCARDS + " [none]"));
    items.clear();
    means.hasLocks = false;
    lookAtDeliveryToCome(items, about, wish, means);
    EXPECT_THAT(texts(items),
                ElementsAre(DISCARDS + " [none]",
                            "forward: has a forward missing, &b@c.example, - [none]"));
}

}  // namespace

}  // namespace corvo::audit::test
