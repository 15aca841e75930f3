#include "tarnvte/lock.h"
