#pragma once
#include "../support/PrivateSessionBus.h"
