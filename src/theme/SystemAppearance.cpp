#include "theme/SystemAppearance.h"

#include <QPalette>

namespace vlm {

bool isDarkForeground(const QColor& foreground) {
    return 5 * foreground.green() + 2 * foreground.red() + foreground.blue() > 1024;
}

bool isDarkPalette(const QPalette& palette) {
    return isDarkForeground(palette.color(QPalette::WindowText));
}

}  // namespace vlm
