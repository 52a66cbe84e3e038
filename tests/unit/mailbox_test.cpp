// The mailbox of a recipient: four lookups in their order, and the folder of its attachments.

#include "autoresponder/mailbox.h"

#include "autoresponder/mail_content.h"
#include "lib/db/quarx_db.h"
#include "support/panel.h"

namespace {

using testing::Eq;
using testing::ExitedWithCode;

const std::vector<std::string> kLookups = {
    "select m.id, m.mail_name, d.name from mail m, domains d where m.dom_id=d.id and "
    "d.name='D' and m.mail_name='L'",
    "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d where "
    "m.id=ma.mn_id and m.dom_id=d.id and d.name='D' and ma.alias='L'",
    "select m.id, m.mail_name, d.name from mail m, domains d, domainaliases da where "
    "m.dom_id=d.id and d.id=da.dom_id and da.name='D' and m.mail_name='L' and da.mail='true'",
    "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d, "
    "domainaliases da where m.id=ma.mn_id and m.dom_id=d.id and d.id=da.dom_id and "
    "da.name='D' and ma.alias='L' and da.mail='true'"};

std::vector<std::string> lookups(size_t count) {
    return {kLookups.begin(), kLookups.begin() + static_cast<std::ptrdiff_t>(count)};
}

class MailboxTest : public PanelTest {
protected:
    Mailbox find() { return find_mailbox(connection(), Mail_content(), "D", "L"); }

    // Domain 3 is example.com with the mailbox 5 "info"; the names that mail comes to are added.
    static void have_mailbox() {
        panel::run("insert into domains set id=3, name='example.com'");
        panel::run("insert into mail set id=5, mail_name='info', dom_id=3");
    }
    static void have_mail_alias() { panel::run("insert into mail_aliases set mn_id=5, alias='L'"); }
    static void have_domain_alias(const std::string& mail) {
        panel::run("insert into domainaliases set dom_id=3, name='D', mail='" + mail + "'");
    }

    void expect_info_mailbox(size_t lookup_count) {
        const Mailbox mailbox = find();
        EXPECT_EQ(mailbox.id, "5");
        EXPECT_EQ(mailbox.mail_name, "info");
        EXPECT_EQ(mailbox.domain_name, "example.com");
        EXPECT_EQ(panel::statements(), lookups(lookup_count));
    }

    static void expect_not_found(const std::string& domain, const std::string& mailname) {
        Mail_content content;
        content.mailname = "o'L";
        content.domain = "D\\";
        EXPECT_EXIT(
            {
                const MysqlConnection own(db_connect());
                find_mailbox(own.get(), content, domain.c_str(), mailname.c_str());
            },
            ExitedWithCode(0), Eq("autoresponder: Mailname not found: o'L@D\\\n"));
    }
};

TEST_F(MailboxTest, IsFoundByItsOwnNames) {
    panel::run("insert into domains set id=4, name='D'");
    panel::run("insert into mail set id=9, mail_name='L', dom_id=4");
    const Mailbox mailbox = find();
    EXPECT_EQ(mailbox.id, "9");
    EXPECT_EQ(mailbox.mail_name, "L");
    EXPECT_EQ(mailbox.domain_name, "D");
    EXPECT_EQ(panel::statements(), lookups(1));
}

TEST_F(MailboxTest, IsFoundThroughAMailAlias) {
    have_mailbox();
    panel::run("update domains set name='D'");
    have_mail_alias();
    const Mailbox mailbox = find();
    EXPECT_EQ(mailbox.id, "5");
    EXPECT_EQ(mailbox.mail_name, "info");
    EXPECT_EQ(mailbox.domain_name, "D");
    EXPECT_EQ(panel::statements(), lookups(2));
}

TEST_F(MailboxTest, IsFoundThroughADomainAlias) {
    have_mailbox();
    panel::run("update mail set mail_name='L'");
    have_domain_alias("true");
    const Mailbox mailbox = find();
    EXPECT_EQ(mailbox.id, "5");
    EXPECT_EQ(mailbox.mail_name, "L");
    EXPECT_EQ(mailbox.domain_name, "example.com");
    EXPECT_EQ(panel::statements(), lookups(3));
}

TEST_F(MailboxTest, IsFoundThroughBothAliases) {
    have_mailbox();
    have_mail_alias();
    have_domain_alias("true");
    expect_info_mailbox(4);
}

TEST_F(MailboxTest, IsNotFoundThroughADomainAliasWithoutMail) {
    have_mailbox();
    have_mail_alias();
    for (const char* mail : {"false", "", "1", "yes"}) {
        panel::run("truncate table domainaliases");
        have_domain_alias(mail);
        expect_not_found("D", "L");
    }
}

TEST_F(MailboxTest, IsTheFirstRowOfSeveral) {
    have_mailbox();
    panel::run("update domains set name='D'");
    panel::run("insert into mail set id=6, mail_name='other', dom_id=3");
    have_mail_alias();
    panel::run("insert into mail_aliases set mn_id=6, alias='L'");
    const std::string first = panel::value(kLookups[1]);
    EXPECT_EQ(find().id, first);
    EXPECT_EQ(panel::statements(), lookups(2));
}

TEST_F(MailboxTest, OwnNameWinsOverAnAlias) {
    have_mailbox();
    panel::run("update domains set name='D'");
    panel::run("insert into mail set id=6, mail_name='L', dom_id=3");
    have_mail_alias();
    EXPECT_EQ(find().id, "6");
}

TEST_F(MailboxTest, IsNotFoundReportsTheUnescapedNamesAndEndsTheRun) {
    expect_not_found("D\\\\", "o\\'L");
}

TEST_F(MailboxTest, AnyLookupThatFailsEndsTheRun) {
    have_mailbox();
    have_mail_alias();
    have_domain_alias("true");
    for (int nth = 1; nth <= 4; ++nth) {
        EXPECT_EXIT(
            {
                const MysqlConnection own(db_connect());
                panel::refuse_statement(nth);
                find_mailbox(own.get(), Mail_content(), "D", "L");
            },
            ExitedWithCode(0),
            Eq(std::string("autoresponder: Unable to query: ") + panel::kRefusal + "\n"))
            << "lookup " << nth;
    }
}

TEST(AttachmentsDirectory, IsBelowTheMailboxOfThePrimaryDomain) {
    EXPECT_EQ(attachments_directory({"5", "info", "example.com"}),
              "/var/qmail/mailnames/example.com/info/@attachments");
}

} // namespace
