#include "tarnvte/libtarnvte.h"
