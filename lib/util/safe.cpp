#include "safe.h"
