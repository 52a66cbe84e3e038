#include "templates.h"
