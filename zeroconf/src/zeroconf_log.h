#pragma once
// Every line of the library goes to the program's log under one category.

#include "Log.h"

#define ZEROCONF_LOG(level, ...) VLM_LOG_CATEGORY("zeroconf_category", (level), __VA_ARGS__)
