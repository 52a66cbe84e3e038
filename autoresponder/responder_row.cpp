#include "autoresponder/responder_row.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/panel_query.h"

#include <algorithm>
#include <cstddef>

namespace {

struct Column {
    const char* name;
    const char* fallback;
    std::string Responder::*member;
};

constexpr Column kColumns[] = {
    {"id", "0", &Responder::id},
    {"keystr", "", &Responder::keystr},
    {"key_where", "no", &Responder::key_where},
    {"text", "", &Responder::text},
    {"resp_on", "false", &Responder::resp_on},
    {"ans_freq", "10", &Responder::ans_freq},
    {"mem_limit", "1000", &Responder::mem_limit},
    {"subject", "", &Responder::subject},
    {"reply_to", "", &Responder::reply_to},
    {"charset", "UTF-8", &Responder::charset},
    {"content_type", "text/plain", &Responder::content_type},
};

bool keyword_matches(const Responder& responder, const Mail_content& content) {
    const auto holds_keyword = [&](const std::string& text) {
        return text.find(responder.keystr) != std::string::npos;
    };
    if (responder.key_where == "subj")
        return holds_keyword(content.subject);
    if (responder.key_where == "body")
        return std::any_of(content.body.begin(), content.body.end(), holds_keyword);
    return true;
}

} // namespace

std::string responder_query(const std::string& mailbox_id) {
    std::string query = "select ";
    for (const Column& column : kColumns) {
        if (&column != kColumns)
            query += ", ";
        query += column.name;
    }
    return query + " from mail_resp where mn_id=" + mailbox_id;
}

Responder responder_from_row(MYSQL_ROW row) {
    Responder responder;
    for (const Column& column : kColumns)
        responder.*column.member = column_or(*row++, column.fallback);
    return responder;
}

bool responder_applies(const Responder& responder, const Mail_content& content) {
    return responder.resp_on != "false" && keyword_matches(responder, content);
}
