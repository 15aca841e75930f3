#include "tarnvte/video_metadata.h"
