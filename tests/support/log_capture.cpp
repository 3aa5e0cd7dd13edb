#include "support/log_capture.h"  // the class is header-only; tests/vm lists this file
