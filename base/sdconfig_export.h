// Marks what libsdconfig.so offers to its users; everything else in it is hidden.
#pragma once

#define SDCONFIG_API __attribute__((visibility("default")))
