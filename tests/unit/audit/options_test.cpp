#include "audit/options.h"

#include <gtest/gtest.h>

namespace corvo::audit {
namespace {

TEST(ScopeTest, WithoutPatternsEverythingIsMeant) {
    const Scope scope;
    EXPECT_TRUE(scope.isAll());
    EXPECT_TRUE(scope.includes("example.com"));
    EXPECT_TRUE(scope.includes("example.com", "info"));
}

TEST(ScopeTest, PatternOfDomainsMeansThemWithAllTheirMailboxes) {
    const Scope scope{{"*.example"}, {}};
    EXPECT_FALSE(scope.isAll());
    EXPECT_TRUE(scope.includes("shop.example"));
    EXPECT_TRUE(scope.includes("shop.example", "info"));
    EXPECT_FALSE(scope.includes("example.com"));
    EXPECT_FALSE(scope.includes("example.com", "info"));
}

TEST(ScopeTest, PatternOfMailboxesMeansNoWholeDomain) {
    const Scope scope{{}, {"info@example.*"}};
    EXPECT_FALSE(scope.isAll());
    EXPECT_FALSE(scope.includes("example.com"));
    EXPECT_TRUE(scope.includes("example.com", "info"));
    EXPECT_TRUE(scope.includes("example.net", "info"));
    EXPECT_FALSE(scope.includes("example.com", "office"));
}

TEST(ScopeTest, DomainsOfMailboxesAreReached) {
    const Scope scope{{"a.example"}, {"info@*.test"}};
    EXPECT_TRUE(scope.reaches("a.example"));
    EXPECT_TRUE(scope.reaches("b.TEST"));
    EXPECT_FALSE(scope.reaches("b.example"));
    EXPECT_TRUE(Scope().reaches("b.example"));
}

TEST(ScopeTest, LastAtOfAMailboxIsBeforeItsDomain) {
    const Scope scope{{}, {"a@b@c.example"}};
    EXPECT_TRUE(scope.reaches("c.example"));
    EXPECT_TRUE(scope.includes("c.example", "a@b"));
    EXPECT_FALSE(scope.includes("c.example", "a"));
}

TEST(ScopeTest, OneOfSeveralPatternsIsEnough) {
    const Scope scope{{"a.example", "b.example"}, {"info@c.example", "info@d.example"}};
    EXPECT_TRUE(scope.includes("b.example"));
    EXPECT_TRUE(scope.includes("b.example", "office"));
    EXPECT_TRUE(scope.includes("d.example", "info"));
    EXPECT_FALSE(scope.includes("d.example", "office"));
}

TEST(ScopeTest, PatternMatchesTheWholeNameInAnyCase) {
    const Scope scope{{"Example.COM"}, {}};
    EXPECT_TRUE(scope.includes("example.com"));
    EXPECT_FALSE(scope.includes("example.com.org"));
    EXPECT_FALSE(scope.includes("an.example.com"));
}

TEST(ScopeTest, PatternMayHaveSetsAndQuotedStars) {
    const Scope scope{{"[ab].example", "\\*.test"}, {}};
    EXPECT_TRUE(scope.includes("a.example"));
    EXPECT_FALSE(scope.includes("c.example"));
    EXPECT_TRUE(scope.includes("*.test"));
    EXPECT_FALSE(scope.includes("a.test"));
}

}  // namespace
}  // namespace corvo::audit
