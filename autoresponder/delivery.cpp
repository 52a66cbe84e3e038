#include "delivery.h"
