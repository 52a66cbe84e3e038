#include "frequency.h"
