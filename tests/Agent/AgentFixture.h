#pragma once
// The agent fixtures live with the other shared test helpers.
#include "AgentTestSupport.h"
