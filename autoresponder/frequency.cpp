#include "autoresponder/frequency.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/panel_query.h"
#include "lib/db/quarx_db.h"
#include "lib/util/owners.h"

#include <cstdlib>
#include <optional>

namespace {

// The counts of one responder, and of one sender among them.
struct Counter {
    MYSQL* connection;
    std::string responder; // "rn_id=..."
    std::string sender;    // "email='...'", escaped
};

void forget_earlier_days(const Counter& counter) {
    send_or_exit(counter.connection, "delete from resp_freq where " + counter.responder +
                                         " and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0");
}

// The first field of the query's first row, "0" for NULL; nothing without a row.
std::optional<std::string> first_field(MYSQL* connection, const std::string& query) {
    const MysqlResult result = query_or_exit(connection, query);
    const MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row == nullptr)
        return std::nullopt;
    return column_or(row[0], "0");
}

// Every sender with the oldest time goes, so several may be forgotten at once.
void forget_oldest(const Counter& counter) {
    const std::string oldest =
        first_field(counter.connection,
                    "select MIN(time_resp) from resp_freq where " + counter.responder)
            .value_or("");
    send_or_exit(counter.connection, "delete from resp_freq where " + counter.responder +
                                         " and time_resp='" + oldest + "'");
}

void raise_count(const Counter& counter, const std::string& num) {
    send_or_exit(counter.connection, "update resp_freq set num=" + num + "+1 where " +
                                         counter.responder + " and " + counter.sender);
}

void insert_first(const Counter& counter) {
    send_or_exit(counter.connection, "insert into resp_freq set " + counter.responder + ", " +
                                         counter.sender + ", num=1");
}

std::string escaped_sender(MYSQL* connection, const std::string& sender) {
    const OwnedText escaped(escape_mysql_param(connection, sender.c_str()));
    return escaped.get();
}

} // namespace

int can_response_freq(MYSQL* st_mysql, const Mail_content* content, std::string rn_id,
                      std::string ans_freq, std::string mem_limit) {
    Counter counter{st_mysql, "rn_id=" + rn_id, {}};
    forget_earlier_days(counter);
    const int most_replies = std::atoi(ans_freq.c_str());
    if (most_replies <= 0)
        return 0;

    const std::string remembered =
        first_field(st_mysql, "select COUNT(*) from resp_freq where " + counter.responder)
            .value_or("0");
    counter.sender = "email='" + escaped_sender(st_mysql, content->sender) + "'";
    const std::optional<std::string> num =
        first_field(st_mysql, "select num from resp_freq where " + counter.responder + " and " +
                                  counter.sender);
    if (num) {
        if (std::atoi(num->c_str()) >= most_replies)
            return 0;
        raise_count(counter, *num);
        return 1;
    }
    if (std::atoi(remembered.c_str()) >= std::atoi(mem_limit.c_str()))
        forget_oldest(counter);
    insert_first(counter);
    return 1;
}
