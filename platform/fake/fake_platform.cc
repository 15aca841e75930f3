// A scripted platform for tests.
#include "librb/critical.h"
