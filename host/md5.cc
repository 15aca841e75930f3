#include "tarnvte/md5.h"
