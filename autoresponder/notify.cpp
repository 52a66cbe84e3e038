#include "notify.h"
