#include "responder.h"
