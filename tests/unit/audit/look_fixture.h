// What looks at a server's storage have in common, for their tests.

#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audit/item.h"
#include "audit/means.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"

namespace corvo::audit::test {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// "KIND: REASON, EXPECTED, FOUND [REPAIR]" for each item, with "-" for what has no value.
inline std::vector<std::string> texts(const Items& items) {
    std::vector<std::string> all;
    for (const Item& item : items)
        all.push_back(std::string(nameOf(item.kind)) + ": " + item.reason + ", " +
                      item.expected.value_or("-") + ", " + item.found.value_or("-") +
                      (item.repair == Repair::none  ? " [none]"
                       : item.repair == Repair::all ? " [--all]"
                                                    : " [either]"));
    return all;
}

/// The same with the path below the home in front.
inline std::vector<std::string> textsWithPaths(const Items& items, const std::string& home) {
    std::vector<std::string> all = texts(items);
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = items[i].path.substr(std::min(items[i].path.size(), home.size())) + " " + all[i];
    return all;
}

/// While it lives, this process has no more rights than popuser.
class AsPopuser {
public:
    AsPopuser() { EXPECT_EQ(::seteuid(corvo::test::POPUSER_UID), 0); }
    ~AsPopuser() { EXPECT_EQ(::seteuid(0), 0); }
    AsPopuser(const AsPopuser&) = delete;
    AsPopuser& operator=(const AsPopuser&) = delete;
};

/// A mail server with its means, and the home of one mail name.
class LookTest : public corvo::test::SandboxTest {
protected:
    LookTest() {
        corvo::test::installMailServer();
        means = findMeans();
        about.kind = ItemKind::home;
        about.domain = "a.example";
        about.mailbox = "anna";
        about.path = HOME;
        about.repair = Repair::all;
        makeFolder("");
    }

    /// Below the home, as a run makes it.
    static void makeFolder(const std::string& path) {
        corvo::test::makeDirectory(HOME + path);
        corvo::test::chownToPopuser(HOME + path);
        ASSERT_EQ(::chmod((HOME + path).c_str(), 0700), 0);
    }

    inline static const std::string HOME = corvo::test::MAILNAMES + "/a.example/anna";

    Means means;
    Item about;
    Items items;
};

}  // namespace corvo::audit::test
