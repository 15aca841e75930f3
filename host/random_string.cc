#include "tarnvte/random_string.h"
