#pragma once
// The desktop's appearance on Linux: VELMOR_THEME, else the settings portal's colour scheme,
// else the platform palette's foreground colour.

#include <QPalette>
#include <memory>

#include "theme/SystemAppearance.h"

namespace vlm {

/// platformPalette: the palette the desktop gave the application before the theme set one.
std::unique_ptr<SystemAppearance> makeLinuxAppearance(const QPalette& platformPalette);

}  // namespace vlm
