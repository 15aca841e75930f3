#include "tarnvte/stat.h"
