#pragma once
// The application's light or dark look, following the desktop's app mode.

#include <QMetaObject>
#include <QObject>
#include <QPalette>
#include <QString>
#include <memory>
#include <vector>

#include "theme/SystemAppearance.h"

class QLabel;
class QWidget;

namespace vlm {

/// Makes the theme's resources (":/splash_screen", ":/cv_dark_theme"...) reachable; the
/// theme and the splash call it themselves, other users of the pictures call it first.
void initThemeResources();

/// \brief Applies a light or dark palette, style sheet, title bar and link colour to the
/// application and to every registered window, and tells its listeners which one it applied.
class QCVTheme : public QObject {
    Q_OBJECT
public:
    /// \brief Told the mode (true = dark) after every application of the theme.
    class Listener {
    public:
        virtual void onThemeApplied(bool dark) = 0;
        virtual ~Listener() = default;
    };

    /// The application's theme, built on first use on the GUI thread and never destroyed.
    static QCVTheme& instance();

    /// A theme over the given desktop appearance (tests pass their own).
    explicit QCVTheme(std::unique_ptr<SystemAppearance> appearance);
    ~QCVTheme() override;

    bool isDark();
    void applyTheme();
    /// The window is themed at the next application and forgotten when destroyed.
    void registerWindow(QWidget* window);
    void addListener(Listener* listener);

    /// The text with its last link coloured for the present mode (see resetQLabelLink).
    QString recolourLinks(const QString& text);

    const QPalette& lightPalette() const { return lightPalette_; }
    const QPalette& darkPalette() const { return darkPalette_; }
    std::vector<QWidget*> registeredWindows() const;

    /// The light mode's application style sheet: it resets those widgets to their plain look.
    static const char* const kLightStyleSheet;

signals:
    /// The desktop's colours changed; the theme is applied again on the GUI thread.
    void signalThemeChanged();

public slots:
    void slotObjectDestroyed(QObject* object);
    void resetQLabelLink(QLabel* pLabel);

private:
    struct Registered {
        QWidget* window;
        // Compared once the widget is gone, when the window pointer may no longer be used.
        QObject* object;
        QMetaObject::Connection destroyed;
    };

    std::vector<Registered> windows_;
    QPalette lightPalette_;
    QPalette darkPalette_;
    std::unique_ptr<SystemAppearance> appearance_;
    std::vector<Listener*> listeners_;
};

}  // namespace vlm
