// What the platform shows to the outside: C functions that are marked, and nothing else.
#pragma once

#define PLATFORM_EXPORT extern "C" __attribute__((visibility("default")))
