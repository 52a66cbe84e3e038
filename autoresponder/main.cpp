// The mail autoresponder: answers one incoming message, read from standard input, on behalf of the
// mailbox named in RESP_RECIPIENT.

#include "autoresponder/guards.h"
#include "autoresponder/intake.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/process.h"
#include "autoresponder/report.h"
#include "autoresponder/responder.h"
#include "lib/conf/qrx_conf.h"
#include "lib/util/messlog.h"

int main(int, char* argv[]) {
    PROGNAME = argv[0];
    prepare_process();
    autoprepend(); // loads the panel's configuration; where it can't the defaults hold
    Mail_content content;
    take_root_identity();
    forbid_core_dumps();
    if (parse_message(&content) != 0)
        report_and_exit("Abnormal exit.");
    if (const char* refusal = refusal_of_sender(content))
        report_and_exit(refusal);
    db_mail_act(&content);
    correct_exit();
}
