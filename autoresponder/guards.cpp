#include "autoresponder/guards.h"

#include "autoresponder/mail_content.h"

#include <string>

namespace {

// Matched with regard to case: mail from a "Mailer-Daemon" is answered, deliberately.
constexpr const char* kDaemonNames[] = {"MAILER-DAEMON", "mailer-daemon", "DrWEB-DAEMON"};

} // namespace

const char* refusal_of_sender(const Mail_content& content) {
    if (content.sender == content.recipient)
        return "Field From: equial field To:";
    for (const char* name : kDaemonNames)
        if (content.sender.find(name) != std::string::npos)
            return "Field From: contains MAILER-DAEMON";
    return nullptr;
}
