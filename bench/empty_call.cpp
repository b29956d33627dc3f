#include "empty_call.h"

void empty_call() {}
