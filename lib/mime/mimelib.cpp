#include "mimelib.h"
