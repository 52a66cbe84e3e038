#include "base64.h"
