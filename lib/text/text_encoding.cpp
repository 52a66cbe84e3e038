#include "text_encoding.h"
