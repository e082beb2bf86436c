// The desktop's appearance on Windows: the UISettings foreground colour and DWM title bars.

// windows.h first: dwmapi.h relies on its types.
#include <windows.h>

#include <dwmapi.h>

#include <winrt/Windows.Foundation.h>
#include <winrt/Windows.UI.ViewManagement.h>

#include <QWidget>

#include "theme/SystemAppearance.h"

namespace vlm {

namespace {
namespace ui = winrt::Windows::UI::ViewManagement;

// DWMWA_USE_IMMERSIVE_DARK_MODE; older SDKs do not name it.
constexpr DWORD kImmersiveDarkMode = 20;

class WindowsAppearance : public SystemAppearance {
public:
    // Platform failures raise winrt::hresult_error to the caller, as the theme expects.
    bool isDark() override {
        const winrt::Windows::UI::Color foreground =
            settings_.as<ui::IUISettings3>().GetColorValue(ui::UIColorType::Foreground);
        return isDarkForeground(QColor(foreground.R, foreground.G, foreground.B));
    }

    void setDarkTitleBar(QWidget* window, bool dark) override {
        const BOOL value = dark ? TRUE : FALSE;
        DwmSetWindowAttribute(reinterpret_cast<HWND>(window->winId()), kImmersiveDarkMode, &value,
                              sizeof value);
    }

    void watch(std::function<void()> changed) override {
        // Raised on a thread-pool thread; the theme queues the work to the GUI thread.
        changedToken_ = settings_.ColorValuesChanged(
            [changed](const ui::UISettings&, const winrt::Windows::Foundation::IInspectable&) {
                changed();
            });
    }

    ~WindowsAppearance() override {
        if (changedToken_)
            settings_.ColorValuesChanged(changedToken_);
    }

private:
    ui::UISettings settings_;
    winrt::event_token changedToken_{};
};
}  // namespace

std::unique_ptr<SystemAppearance> SystemAppearance::create() {
    return std::make_unique<WindowsAppearance>();
}

}  // namespace vlm
