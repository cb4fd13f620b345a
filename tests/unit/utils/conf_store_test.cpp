#include "utils/conf_store.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/log.h"

namespace corvo::test {
namespace {

struct StoreFreer {
    void operator()(conf_store* store) const { conf_free_r(store); }
};
using Store = std::unique_ptr<conf_store, StoreFreer>;

Store newStore() {
    return Store(static_cast<conf_store*>(std::calloc(1, sizeof(conf_store))));
}

/// "NAME=value" pairs in the order of the store, joined by blanks.
std::string pairsOf(const Store& store) {
    std::string pairs;
    for (std::size_t i = 0; i < store->count; ++i)
        pairs += (i > 0 ? " " : "") + std::string(store->entries[i].name) + "=" +
                 store->entries[i].value;
    return pairs;
}

std::string numbered(std::size_t i) {
    return "NAME" + std::to_string(i);
}

void fill(const Store& store, std::size_t pairs) {
    for (std::size_t i = 0; i < pairs; ++i)
        ASSERT_EQ(conf_set_r(numbered(i).c_str(), std::to_string(i).c_str(), store.get()), 0);
}

TEST(ConfStoreTest, StartsWithTwentySortedEmptySlots) {
    const Store store = newStore();
    EXPECT_EQ(conf_init_r(store.get()), 0);
    EXPECT_EQ(store->capacity, 20U);
    EXPECT_EQ(store->count, 0U);
    EXPECT_TRUE(store->sorted);
    for (std::size_t i = 0; i < store->capacity; ++i)
        EXPECT_EQ(store->entries[i].name, nullptr);
}

TEST(ConfStoreTest, DoublesItsCapacityWhenEverySlotIsUsed) {
    const Store store = newStore();
    fill(store, 19);
    EXPECT_EQ(conf_init_r(store.get()), 0);
    EXPECT_EQ(store->capacity, 20U);
    fill(store, 20);
    EXPECT_EQ(store->capacity, 20U);
    EXPECT_EQ(conf_init_r(store.get()), 0);
    EXPECT_EQ(store->capacity, 40U);
    fill(store, 41);
    EXPECT_EQ(store->capacity, 80U);
    EXPECT_EQ(store->count, 41U);
}

TEST(ConfStoreTest, KeepsTheOrderOfAdditionUntilItIsSorted) {
    const Store store = newStore();
    conf_set_r("B", "1", store.get());
    conf_set_r("a", "2", store.get());
    conf_set_r("A", "3", store.get());
    EXPECT_FALSE(store->sorted);
    EXPECT_EQ(pairsOf(store), "B=1 a=2 A=3");

    conf_finalize_r(store.get());

    EXPECT_TRUE(store->sorted);
    EXPECT_EQ(pairsOf(store), "A=3 B=1 a=2");
}

TEST(ConfStoreTest, TakesALaterValueForAKnownName) {
    const Store store = newStore();
    conf_set_r("B", "1", store.get());
    conf_set_r("A", "2", store.get());
    conf_finalize_r(store.get());

    EXPECT_EQ(conf_set_r("B", "3", store.get()), 0);

    EXPECT_EQ(pairsOf(store), "A=2 B=3");
    EXPECT_TRUE(store->sorted);
}

TEST(ConfStoreTest, IsUnsortedAgainAfterANewName) {
    const Store store = newStore();
    conf_finalize_r(store.get());
    conf_set_r("A", "1", store.get());
    EXPECT_FALSE(store->sorted);
}

TEST(ConfStoreTest, CopiesItsStrings) {
    const Store store = newStore();
    std::string name = "NAME";
    std::string value = "value";
    conf_set_r(name.c_str(), value.c_str(), store.get());
    name = value = "????";
    EXPECT_STREQ(conf_get_r("NAME", store.get()), "value");
}

TEST(ConfStoreTest, FindsEveryNameSortedAndUnsorted) {
    const Store store = newStore();
    fill(store, 50);
    for (const bool sorted : {false, true}) {
        EXPECT_EQ(store->sorted, sorted);
        for (std::size_t i = 0; i < 50; ++i)
            EXPECT_STREQ(conf_get_r(numbered(i).c_str(), store.get()), std::to_string(i).c_str());
        for (const char* missing : {"", "NAME", "NAME50", "name1", "ZZZ"})
            EXPECT_EQ(conf_get_r(missing, store.get()), nullptr) << missing;
        conf_finalize_r(store.get());
    }
}

TEST(ConfStoreTest, FindsNothingWhenItIsEmpty) {
    const Store store = newStore();
    EXPECT_EQ(conf_get_r("NAME", store.get()), nullptr);
    conf_finalize_r(store.get());
    EXPECT_EQ(conf_get_r("NAME", store.get()), nullptr);
}

TEST(ConfStoreTest, FreesNothingForNull) {
    errno = ENOENT;
    conf_free_r(nullptr);
    EXPECT_EQ(errno, ENOENT);
}

class ConfFileTest : public LoggingTest {
protected:
    int read(const std::string& contents) {
        writeFile(PATH, contents);
        return conf_read_file_r(PATH, store.get());
    }

    static constexpr const char* PATH = "/etc/vhc/test.conf";
    Store store = newStore();
};

/// What is logged with the priority of configurations, which the stream writers never print.
LoggedLines unprinted(const std::string& text) {
    return {{text, 12}};
}

TEST_F(ConfFileTest, GivesValuesWithoutBlanksAroundAndComments) {
    const struct {
        const char* line;
        const char* value;
    } cases[] = {
        {"NAME  /srv/mail   # comment\n", "/srv/mail"},
        {"NAME value", "value"},
        {"\t NAME\tvalue\r\n", "value"},
        {"NAME  a  b\tc \n", "a  b\tc"},
        {"NAME \"quoted\"\n", "\"quoted\""},
        {"NAME value#comment\n", "value"},
        {"NAME =value\n", "=value"},
        {"# comment\n\n  \n  # comment\nNAME value\n", "value"},
        {"NAME first\nNAME second\n", "second"},
    };
    for (const auto& [line, value] : cases) {
        EXPECT_EQ(read(line), 0) << line;
        EXPECT_STREQ(conf_get_r("NAME", store.get()), value) << line;
        EXPECT_EQ(store->count, 1U);
    }
    EXPECT_EQ(LogRecorder::all(), LoggedLines());
}

TEST_F(ConfFileTest, KnowsNamesOfLettersDigitsAndUnderscores) {
    EXPECT_EQ(read("_a1 1\n9Z_ 2\nX 3"), 0);
    EXPECT_EQ(pairsOf(store), "9Z_=2 X=3 _a1=1");
    EXPECT_TRUE(store->sorted);
}

TEST_F(ConfFileTest, SkipsAndReportsLinesThatAreNoDefinition) {
    const std::string space = "\nExpected a space after variable name\n";
    const std::string value = "\nExpected a value";
    const struct {
        const char* line;
        std::string message;
    } cases[] = {
        {"NAME=/srv/mail\n", "NAME=/srv/mail" + space},
        {"  NAME-X value\n", "NAME-X value" + space},
        {"NAME#comment\n", "NAME#comment" + space},
        {"=value\n", "=value" + space},
        {"\xc3\xa9 value\n", "\xc3\xa9 value" + space},
        {"NAME\n", "NAME" + value},
        {"NAME", "NAME" + value},
        {"NAME  \t\r\n", "NAME" + value},
        {"NAME # c\n", "NAME # c" + value},
    };
    for (const auto& [line, message] : cases) {
        EXPECT_EQ(read(std::string("FIRST 1\n") + line), 0) << line;
        EXPECT_EQ(LogRecorder::all(), unprinted("Invalid variable definition " + message));
        EXPECT_EQ(pairsOf(store), "FIRST=1");
    }
}

TEST_F(ConfFileTest, GoesOnAfterALineThatIsNoDefinition) {
    EXPECT_EQ(read("A 1\n=\nB 2\n"), 0);
    EXPECT_EQ(pairsOf(store), "A=1 B=2");
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Invalid variable definition =\nExpected a space after variable name\n"));
}

TEST_F(ConfFileTest, ReadsLinesOfAnyLength) {
    const std::string value(100000, 'x');
    EXPECT_EQ(read("NAME " + value + "\nB 2"), 0);
    EXPECT_EQ(conf_get_r("NAME", store.get()), value);
    EXPECT_STREQ(conf_get_r("B", store.get()), "2");
}

TEST_F(ConfFileTest, ReadsManyLinesIntoAGrowingSortedStore) {
    std::string contents;
    for (int i = 99; i >= 0; --i)
        contents += "N" + std::to_string(i) + " " + std::to_string(i) + "\n";
    EXPECT_EQ(read(contents), 0);
    EXPECT_EQ(store->count, 100U);
    EXPECT_EQ(store->capacity, 160U);
    EXPECT_STREQ(store->entries[0].name, "N0");
    EXPECT_STREQ(store->entries[99].name, "N99");
    EXPECT_STREQ(conf_get_r("N42", store.get()), "42");
}

TEST_F(ConfFileTest, ReadsAnEmptyFile) {
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(store->count, 0U);
    EXPECT_EQ(LogRecorder::all(), LoggedLines());
}

TEST_F(ConfFileTest, AddsToAStoreThatHasPairs) {
    conf_set_r("B", "old", store.get());
    conf_set_r("C", "3", store.get());
    EXPECT_EQ(read("B 2\nA 1\n"), 0);
    EXPECT_EQ(pairsOf(store), "A=1 B=2 C=3");
}

TEST_F(ConfFileTest, ReportsAMissingFile) {
    EXPECT_EQ(conf_read_file_r(PATH, store.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(LogRecorder::all(),
              unprinted("unable to open configuration file /etc/vhc/test.conf: No such file or "
                        "directory\n"));
}

TEST_F(ConfFileTest, ReportsAFileThatCannotBeRead) {
    EXPECT_EQ(conf_read_file_r("/etc/vhc", store.get()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(LogRecorder::all(), unprinted("Unable to read configuration file: Is a directory"));
}

TEST_F(ConfFileTest, PrintsNoMessagesOnTheStreams) {
    EXPECT_EQ(read("NAME\n=\n"), 0);
    EXPECT_EQ(conf_read_file_r("/nonexistent", store.get()), -1);
    expectLogged({});
}

class ConfStoreWithoutMemoryTest : public WithoutMemoryTest {
protected:
    /// Runs `body` in a child; it tells by its result whether all was as expected.
    template <typename Body>
    static void runInChild(Body body) {
        const ProcessResult result = runForked([&] {
            if (!body())
                _exit(1);
        });
        EXPECT_EQ(result.status, 0);
    }

    Store store = newStore();
    LogRecorder log;
};

TEST_F(ConfStoreWithoutMemoryTest, CannotBePrepared) {
    runInChild([&] {
        exhaustMemory();
        return conf_read_file_r("/etc/vhc/test.conf", store.get()) == -1 && errno == ENOMEM;
    });
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Unable to read configuration: Cannot allocate memory"));
}

TEST_F(ConfStoreWithoutMemoryTest, CannotGrowButKeepsItsPairs) {
    const std::string name(2000, 'n');
    runInChild([&] {
        fill(store, 20);
        const std::string before = pairsOf(store);
        exhaustMemory(4096);  // for the two copies, not for 40 slots beside them
        return conf_set_r(name.c_str(), name.c_str(), store.get()) == -1 && errno == ENOMEM &&
               store->capacity == 20 && store->count == 20 &&
               std::string_view(conf_get_r("NAME19", store.get())) == "19";
    });
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Unable to read configuration: Cannot allocate memory"));
}

TEST_F(ConfStoreWithoutMemoryTest, CannotCopyStrings) {
    runInChild([&] {
        conf_init_r(store.get());
        exhaustMemory();
        return conf_set_r("A", "1", store.get()) == -1 && errno == ENOMEM && store->count == 0;
    });
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Unable to form configuration: Cannot allocate memory"));
}

TEST_F(ConfStoreWithoutMemoryTest, FailsToReadAPairThatCannotBeCopied) {
    writeFile("/etc/vhc/test.conf", "NAME " + std::string(20000, 'x') + "\n");
    runInChild([&] {
        conf_init_r(store.get());
        exhaustMemory(40000);  // for the stream and one long line, not for its copy
        return conf_read_file_r("/etc/vhc/test.conf", store.get()) == -1 && errno == ENOMEM &&
               store->count == 0;
    });
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Unable to form configuration: Cannot allocate memory"));
}

TEST_F(ConfStoreWithoutMemoryTest, FailsToReadALineThatIsTooLongForIt) {
    writeFile("/etc/vhc/test.conf", "NAME " + std::string(100000, 'x') + "\n");
    runInChild([&] {
        conf_init_r(store.get());
        exhaustMemory(40000);
        return conf_read_file_r("/etc/vhc/test.conf", store.get()) == -1 && errno == ENOMEM;
    });
    EXPECT_EQ(LogRecorder::all(),
              unprinted("Unable to read configuration file: Cannot allocate memory"));
}

}  // namespace
}  // namespace corvo::test
