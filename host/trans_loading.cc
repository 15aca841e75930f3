#include "tarnvte/trans_loading.h"
