#include "mail_content.h"
