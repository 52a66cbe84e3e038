#pragma once

// One autoresponder of a mailbox: a row of table mail_resp, and whether it answers a message.

#include <mysql.h>
#include <string>

struct Mail_content;

// The columns as text, numbers too, in the order of kColumns; a NULL column has its default.
struct Responder {
    std::string id;
    std::string keystr;
    std::string key_where;
    std::string text;
    std::string resp_on;
    std::string ans_freq;
    std::string mem_limit;
    std::string subject;
    std::string reply_to;
    std::string charset;
    std::string content_type;
};

// The query for the responders of the mailbox `mailbox_id`, in the database's own order.
std::string responder_query(const std::string& mailbox_id);

// The responder of one row of that query's result.
Responder responder_from_row(MYSQL_ROW row);

// Whether `responder` is switched on and its keyword condition holds for `content`. Only the exact
// text "false" switches off; only "subj" and "body" are conditions.
bool responder_applies(const Responder& responder, const Mail_content& content);
