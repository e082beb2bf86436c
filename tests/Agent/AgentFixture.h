#pragma once
#include "AgentTestSupport.h"
