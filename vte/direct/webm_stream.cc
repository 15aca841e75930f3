#include "tarnvte/webm_stream.h"
