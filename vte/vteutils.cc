#include "tarnvte/vteutils.h"
