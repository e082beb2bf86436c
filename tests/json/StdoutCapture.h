#pragma once
// Kept where the plug-in tests look for it; the capture lives with the shared test support.
#include "TestSupport.h"
