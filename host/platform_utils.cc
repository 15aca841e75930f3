#include "tarnvte/platform_utils.h"
