#include "tarnvte/json_utils.h"
