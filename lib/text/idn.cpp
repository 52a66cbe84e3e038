#include "idn.h"
