#include "intake.h"
