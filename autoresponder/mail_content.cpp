#include "autoresponder/mail_content.h"

#include <cstdlib>
#include <unistd.h>

char mail_file_name[] = "/tmp/qrx-autoresponder-XXXXXX";
char resp_uu_file_name[] = "/tmp/qrx-response-uu-XXXXXX";

void correct_exit() {
    for (const char* name : {mail_file_name, resp_uu_file_name})
        if (name[0] != '\0')
            unlink(name);
    std::exit(EXIT_SUCCESS);
}
