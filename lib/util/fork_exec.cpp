#include "fork_exec.h"
