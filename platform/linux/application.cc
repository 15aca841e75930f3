// The application library on any Linux host.
#include "librb/critical.h"
