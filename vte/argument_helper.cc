#include "tarnvte/argument_helper.h"
