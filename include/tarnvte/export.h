// Marks what the shared library exports; everything else in it is hidden.
#pragma once

#define TARNVTE_EXPORT __attribute__((visibility("default")))
