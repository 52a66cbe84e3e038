#include "qrx_conf.h"
