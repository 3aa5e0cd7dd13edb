#include "../posix.h"
