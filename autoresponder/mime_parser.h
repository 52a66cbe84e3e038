#pragma once

// The message parser: this system's own, or mimelib itself where the build asks for it.

#ifdef QRX_SYSTEM_MIMELIB
#include <mimelib/mimepp.h>
#else
#include "../lib/mime/mimelib.h"
#endif
