#include "autoresponder/mailbox.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/panel_query.h"
#include "autoresponder/paths.h"
#include "autoresponder/report.h"
#include "lib/conf/qrx_conf.h"

#include <cstddef>

namespace {

// A lookup is its head, the escaped domain, its middle, the escaped mail name, its tail.
struct Lookup {
    const char* head;
    const char* middle;
    const char* tail;
};

constexpr Lookup kLookups[] = {
    {"select m.id, m.mail_name, d.name from mail m, domains d "
     "where m.dom_id=d.id and d.name='",
     "' and m.mail_name='", "'"},
    {"select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d "
     "where m.id=ma.mn_id and m.dom_id=d.id and d.name='",
     "' and ma.alias='", "'"},
    {"select m.id, m.mail_name, d.name from mail m, domains d, domainaliases da "
     "where m.dom_id=d.id and d.id=da.dom_id and da.name='",
     "' and m.mail_name='", "' and da.mail='true'"},
    {"select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d, domainaliases da "
     "where m.id=ma.mn_id and m.dom_id=d.id and d.id=da.dom_id and da.name='",
     "' and ma.alias='", "' and da.mail='true'"},
};

// The result of the first lookup that finds something, else the last one's empty result.
MysqlResult look_up(MYSQL* connection, const std::string& domain, const std::string& mailname) {
    MysqlResult result;
    for (const Lookup& lookup : kLookups) {
        result =
            query_or_exit(connection, lookup.head + domain + lookup.middle + mailname + lookup.tail,
                          "autoresponder: Unable to query: ");
        if (mysql_num_rows(result.get()) != 0)
            break;
    }
    return result;
}

} // namespace

Mailbox find_mailbox(MYSQL* connection, const Mail_content& content, const char* domain,
                     const char* mailname) {
    const MysqlResult result = look_up(connection, domain, mailname);
    const MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row == nullptr)
        report_and_exit("autoresponder: Mailname not found: " + content.mailname + "@" +
                        content.domain);
    return {column_or(row[0], ""), column_or(row[1], ""), column_or(row[2], "")};
}

std::string attachments_directory(const Mailbox& mailbox) {
    return std::string(qrxConfGetDefaultByIndex(kConfMailnamesD)) + "/" + mailbox.domain_name +
           "/" + mailbox.mail_name + "/" + paths::kAttachmentsFolder;
}
