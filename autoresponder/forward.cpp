#include "forward.h"
