// The panel databases that the benchmark measures with.

#include "tests/integration/generated_panel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/panel.h"
#include "tests/support/sandbox.h"
#include "utils/digest.h"

namespace corvo::test {
namespace {

using GeneratedPanelTest = SandboxTest;

TEST_F(GeneratedPanelTest, HasTheSameBytesOnEveryMachine) {
    char digest[MD5_HEX_SIZE];
    EXPECT_STREQ(get_md5sum("", generatedPanel(20, 300, 7).c_str(), digest),
                 "76296c652e4f16132c73d0479b0b9095");
    EXPECT_NE(generatedPanel(20, 300, 7), generatedPanel(20, 300, 8));
}

TEST_F(GeneratedPanelTest, HasAsManyDomainsAndMailNamesAsWanted) {
    PanelDatabase panel;
    panel.execute(generatedPanel(20, 500));
    const std::string walked =
        " FROM domains d, DomainServices s, Parameters p WHERE d.id=s.dom_id AND s.type='mail'"
        " AND p.id=s.parameters_id AND p.parameter='nonexist_mail'";
    EXPECT_EQ(panel.query("SELECT COUNT(*)" + walked).at(0), "20");
    EXPECT_EQ(panel.query("SELECT COUNT(*) FROM mail WHERE dom_id IN (SELECT d.id" + walked + ")"),
              std::vector<std::string>{"500"});
}

TEST_F(GeneratedPanelTest, HasEveryKindOfThingThatAServerHas) {
    PanelDatabase panel;
    panel.execute(generatedPanel(100, 2000));
    const char* const kinds[] = {
        "mail WHERE postbox='true' AND delivery='true'",
        "mail WHERE postbox='true' AND delivery='false'",
        "mail WHERE postbox='false' AND mail_group='false'",
        "mail WHERE postbox='true' AND mail_group='true'",
        "mail WHERE postbox='false' AND mail_group='true'",
        "mail WHERE BINARY mail_name<>LOWER(mail_name)",
        "mail WHERE mbox_quota=-1",
        "mail WHERE mbox_quota=0",
        "mail WHERE mbox_quota>0",
        "mail JOIN mail_redir ON mn_id=mail.id WHERE mail_group='true'",
        "mail JOIN mail_aliases ON mn_id=mail.id",
        "Limits WHERE limit_name='mbox_quota' AND value=-1",
        "Limits WHERE limit_name='mbox_quota' AND value>0",
        "domains LEFT JOIN Limits ON domains.id=Limits.id WHERE Limits.id IS NULL",
        "domains WHERE BINARY name<>LOWER(name)",
        "domain_aliases WHERE mail='true'",
        "domain_aliases WHERE mail='false'",
        "DomainServices WHERE type='mail' AND status<>0",
        "Parameters WHERE parameter='catch_addr'",
        "Parameters WHERE parameter='bounce_mess'",
    };
    for (const std::string kind : kinds)
        EXPECT_NE(panel.query("SELECT COUNT(*) FROM " + kind).at(0), "0") << kind;
}

}  // namespace
}  // namespace corvo::test
