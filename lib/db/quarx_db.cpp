#include "quarx_db.h"
