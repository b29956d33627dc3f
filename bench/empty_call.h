// A function of a shared library that does nothing: the least that any call of a platform costs.
#pragma once

extern "C" void empty_call();
