#pragma once

// Files of ours in a folder that everybody may write to. Nobody else's link or file is ever
// followed, truncated or read.

#include "lib/util/unique_fd.h"

// Creates `name` anew, readable and writable by its owner only. What somebody put there before is
// removed first where that is allowed. Owns no descriptor on failure, errno as open(2) or unlink(2)
// left it.
UniqueFd create_temporary(const char* name);

// Opens `name`, a regular file of this process's own user, for reading. Owns no descriptor on
// failure, errno as open(2) left it, or EACCES for what isn't ours.
UniqueFd open_temporary(const char* name);
