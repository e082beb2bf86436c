#pragma once
// What the theme needs from the desktop: its light/dark mode, dark title bars, and word of a
// change. One implementation per system; tests install their own.

#include <QColor>
#include <functional>
#include <memory>

class QPalette;
class QWidget;

namespace vlm {

/// \brief The desktop's appearance as the theme sees it.
class SystemAppearance {
public:
    /// The implementation for the system the program was built for.
    static std::unique_ptr<SystemAppearance> create();

    virtual ~SystemAppearance() = default;

    /// True when the desktop is in dark app mode. Asked afresh on every call.
    virtual bool isDark() = 0;
    /// Gives the window's title bar the dark (or light) look where the system has one.
    virtual void setDarkTitleBar(QWidget* window, bool dark) = 0;
    /// changed is called, on any thread, whenever the desktop's colours change.
    virtual void watch(std::function<void()> changed) = 0;
};

/// Light text means a dark desktop: 5G + 2R + B above 1024.
bool isDarkForeground(const QColor& foreground);

/// The same rule on the palette's foreground (WindowText) colour.
bool isDarkPalette(const QPalette& palette);

}  // namespace vlm
