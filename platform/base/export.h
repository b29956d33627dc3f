// Marks the C functions that the platform exports; nothing else is visible outside.
#pragma once

#define PLATFORM_EXPORT extern "C" __attribute__((visibility("default")))
