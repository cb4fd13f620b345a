#include "utils/size_units.h"

#include <gtest/gtest.h>

namespace corvo::test {
namespace {

TEST(SizeUnitsTest, AreKnownByTheirNames) {
    const struct {
        const char* name;
        unsigned long long factor;
    } cases[] = {
        {"B", 1ULL},           {"KB", 1024ULL},          {"MB", 1048576ULL},
        {"GB", 1073741824ULL}, {"TB", 1099511627776ULL},
    };
    for (const auto& [name, factor] : cases) {
        EXPECT_EQ(get_size_unit(name), factor);
        EXPECT_EQ(is_valid_size_unit(name), 1);
        EXPECT_EQ(get_value_in_bytes(3, name), 3 * factor);
    }
}

TEST(SizeUnitsTest, AreMatchedExactly) {
    for (const char* name : {"", "b", "kb", "Kb", "K", "KBB", " KB", "PB"}) {
        EXPECT_EQ(get_size_unit(name), 0U) << name;
        EXPECT_EQ(is_valid_size_unit(name), 0) << name;
        EXPECT_EQ(get_value_in_bytes(3, name), 0U) << name;
    }
}

}  // namespace
}  // namespace corvo::test
