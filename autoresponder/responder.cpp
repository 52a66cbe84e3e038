#include "autoresponder/responder.h"

#include "autoresponder/attachments.h"
#include "autoresponder/delivery.h"
#include "autoresponder/forward.h"
#include "autoresponder/frequency.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/mailbox.h"
#include "autoresponder/notify.h"
#include "autoresponder/panel_query.h"
#include "autoresponder/reply.h"
#include "autoresponder/report.h"
#include "autoresponder/responder_row.h"
#include "autoresponder/response_file.h"
#include "lib/db/quarx_db.h"
#include "lib/text/idn.h"
#include "lib/util/messlog.h"
#include "lib/util/owners.h"

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

namespace {

// What every responder of the run shares.
struct Run {
    MYSQL* connection;
    const Mail_content& content;
    const char* escaped_domain;
    std::string attachments_directory;
};

// `text` escaped for SQL. No memory for it ends the run.
OwnedText escaped_for_sql(const std::string& text) {
    OwnedText escaped(static_cast<char*>(std::malloc(text.size() * 2 + 1)));
    if (!escaped)
        report_and_exit("autoresponder: Unable to alloc memory");
    mysql_escape_string(escaped.get(), text.data(), text.size());
    return escaped;
}

void answer(const Run& run, const Responder& responder) {
    const std::string boundary = makeBoundaryStr();
    ResponseFile file;
    const Attachments attachments =
        list_attachments(run.connection, responder.id, run.attachments_directory);
    if (!attachments.missing.empty())
        notify_missing_attachments(run.connection, run.content, run.escaped_domain,
                                   responder.reply_to, attachments.missing);
    compose_reply(responder, run.content, attachments, boundary, file);
    deliver_reply(run.content);
}

void handle_responder(const Run& run, MYSQL_ROW row) {
    const Responder responder = responder_from_row(row);
    if (!responder_applies(responder, run.content))
        return;
    if (!can_response_freq(run.connection, &run.content, responder.id, responder.ans_freq,
                           responder.mem_limit))
        return;
    forward_message(run.connection, run.content, responder.id);
    answer(run, responder);
}

// The panel's reporter ends the process here, so the temporary files stay behind for whoever looks
// into the failure.
void handle_or_end_run(const Run& run, MYSQL_ROW row) {
    try {
        handle_responder(run, row);
    } catch (const std::bad_alloc&) {
        messlog2(1, 1, "Program failed due to exhausted memory");
    } catch (const std::runtime_error& failure) {
        messlog2(1, 1, "Send error: %s", failure.what());
    } catch (const quarx::idn::IdnaError& failure) {
        messlog2(1, 1, "IDN conversion error: %s", failure.what());
    }
}

} // namespace

int db_mail_act(Mail_content* content) {
    // mysql_escape_string() reads what only the client library's start sets up.
    quarx_db_start_client();
    const OwnedText domain = escaped_for_sql(content->domain);
    const OwnedText mailname = escaped_for_sql(content->mailname);

    const MysqlConnection connection(db_connect());
    if (!connection)
        report_and_exit("autoresponder: Unable to connect to the mysql database ");
    const Mailbox mailbox = find_mailbox(connection.get(), *content, domain.get(), mailname.get());
    const Run run{connection.get(), *content, domain.get(), attachments_directory(mailbox)};
    const MysqlResult responders = query_or_exit(connection.get(), responder_query(mailbox.id));
    while (const MYSQL_ROW row = mysql_fetch_row(responders.get()))
        handle_or_end_run(run, row);
    return 0;
}
