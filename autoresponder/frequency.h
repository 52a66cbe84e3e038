#pragma once

// The limit on replies to one sender on one day: table resp_freq.

#include <mysql.h>
#include <string>

struct Mail_content;

// Whether the responder `rn_id` may answer `content`'s sender now: 1, and the reply is counted, or
// 0. `ans_freq` is the most replies to one sender a day, `mem_limit` the most senders remembered;
// both are read by atoi(3), and without a positive `ans_freq` nobody is answered. The day is the
// database server's. A failed statement ends the run; what ran before it stays done. Runs side by
// side are not kept apart: two first messages at one moment may both be counted as first.
int can_response_freq(MYSQL* st_mysql, const Mail_content* content, std::string rn_id,
                      std::string ans_freq, std::string mem_limit);
