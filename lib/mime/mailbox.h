// One mailbox: `local @ domain`.
#pragma once

#include "mimelib.h"

#include <memory>
#include <string_view>

namespace mime {

// The mailbox that `address`, a part of the field `field`, is: words and quoted strings with dots
// between them, "@", words and domain literals with dots between them; dots may lead, end or
// double. Anything else gives an invalid one. Never null.
std::unique_ptr<DwMailbox> make_mailbox(const DwString& field, std::string_view address);

// What stands in `address`, the inside of "<...>" with every token in it complete, behind a leading
// route `@a,@b:`. Of a route without ":" nothing is left, which makes no mailbox.
std::string_view without_route(std::string_view address);

} // namespace mime
