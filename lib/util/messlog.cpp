#include "messlog.h"
