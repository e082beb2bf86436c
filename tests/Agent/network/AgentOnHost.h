#pragma once
#include "ProgramsOnHost.h"
