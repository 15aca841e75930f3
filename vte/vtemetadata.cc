#include "tarnvte/vtemetadata.h"
