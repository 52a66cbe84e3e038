#include "reply.h"
