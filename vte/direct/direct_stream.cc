#include "tarnvte/direct_stream.h"
