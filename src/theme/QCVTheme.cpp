#include "theme/QCVTheme.h"

#include <QApplication>
#include <QBrush>
#include <QFile>
#include <QLabel>
#include <QStyle>
#include <QWidget>
#include <algorithm>

// Resources of a static library are only linked in when something names them.
static void initThemeResourcesOnce() {
    Q_INIT_RESOURCE(theme);
}

namespace vlm {

void initThemeResources() {
    static const bool done = (initThemeResourcesOnce(), true);
    Q_UNUSED(done);
}

const char* const QCVTheme::kLightStyleSheet =
    "QPushButton QLineEdit QToolButton QComboBox QScrollBar QToolTip QMenu QMenuBar";

namespace {
const char* const kDarkStyleSheetResource = ":/cv_dark_theme";
const char* const kLightLinkStyle = " style=\"color: rgb(0, 0, 255);\"";
const char* const kDarkLinkStyle = " style=\"color: rgb(42, 130, 218);\"";

QPalette standardPalette() {
    if (qobject_cast<QApplication*>(QCoreApplication::instance()))
        return QApplication::style()->standardPalette();
    return QGuiApplication::palette();
}

QPalette makeDarkPalette(QPalette palette) {
    const struct {
        QPalette::ColorRole role;
        QColor colour;
    } roles[] = {
        {QPalette::Window, QColor(0, 0, 0)},
        {QPalette::WindowText, Qt::white},
        {QPalette::Base, QColor(25, 25, 25)},
        {QPalette::AlternateBase, QColor(50, 50, 50)},
        {QPalette::ToolTipBase, Qt::black},
        {QPalette::ToolTipText, Qt::white},
        {QPalette::Text, Qt::white},
        {QPalette::Button, QColor(50, 50, 50)},
        {QPalette::ButtonText, Qt::white},
        {QPalette::BrightText, Qt::red},
        {QPalette::Link, QColor(42, 130, 218)},
        {QPalette::Highlight, QColor(42, 130, 218)},
        {QPalette::HighlightedText, Qt::black},
    };
    for (const auto& entry : roles)
        palette.setBrush(QPalette::All, entry.role, QBrush(entry.colour, Qt::SolidPattern));
    return palette;
}
}  // namespace

QCVTheme& QCVTheme::instance() {
    static QCVTheme* theme = new QCVTheme(SystemAppearance::create());
    return *theme;
}

QCVTheme::QCVTheme(std::unique_ptr<SystemAppearance> appearance)
    : lightPalette_(standardPalette()),
      darkPalette_(makeDarkPalette(lightPalette_)),
      appearance_(std::move(appearance)) {
    initThemeResources();
    // The desktop may report a change on any thread; widgets are only touched on ours.
    connect(
        this, &QCVTheme::signalThemeChanged, this, [this] { applyTheme(); }, Qt::QueuedConnection);
    appearance_->watch([this] { emit signalThemeChanged(); });
}

QCVTheme::~QCVTheme() = default;

bool QCVTheme::isDark() {
    return appearance_->isDark();
}

void QCVTheme::applyTheme() {
    const bool dark = isDark();
    const QPalette& palette = dark ? darkPalette_ : lightPalette_;
    QApplication::setPalette(palette);

    if (auto* application = qobject_cast<QApplication*>(QCoreApplication::instance())) {
        if (dark) {
            QFile styleSheet(kDarkStyleSheetResource);
            if (styleSheet.open(QIODevice::ReadOnly))
                application->setStyleSheet(QString::fromUtf8(styleSheet.readAll()));
        } else {
            application->setStyleSheet(kLightStyleSheet);
        }
    }

    // A copy: a label's new text may run code that registers or destroys windows.
    const std::vector<Registered> windows = windows_;
    for (const Registered& registered : windows) {
        QWidget* window = registered.window;
        appearance_->setDarkTitleBar(window, dark);
        window->setPalette(palette);
        for (QWidget* child : window->findChildren<QWidget*>()) {
            child->setPalette(palette);
            if (auto* label = qobject_cast<QLabel*>(child))
                resetQLabelLink(label);
        }
    }

    for (Listener* listener : listeners_)
        listener->onThemeApplied(dark);
}

void QCVTheme::registerWindow(QWidget* window) {
    if (!window)
        return;
    const bool known = std::any_of(windows_.begin(), windows_.end(),
                                   [window](const Registered& r) { return r.window == window; });
    if (known)
        return;
    // Watched from the start, so a window destroyed before the next application is never
    // touched by it.
    windows_.push_back(
        {window, window,
         connect(window, &QObject::destroyed, this, &QCVTheme::slotObjectDestroyed)});
}

void QCVTheme::addListener(Listener* listener) {
    listeners_.push_back(listener);
}

std::vector<QWidget*> QCVTheme::registeredWindows() const {
    std::vector<QWidget*> windows;
    for (const Registered& registered : windows_)
        windows.push_back(registered.window);
    return windows;
}

QString QCVTheme::recolourLinks(const QString& text) {
    // Every step starts again from the original text, so only the last link keeps its style;
    // the labels of this program have one link each and have always looked this way.
    QString result = text;
    int from = 0;
    for (;;) {
        const int anchor = text.indexOf(QLatin1String("<a"), from);
        if (anchor < 0)
            break;
        const int close = text.indexOf(QLatin1Char('>'), anchor);
        if (close < 0)
            break;
        result = text.left(close) + (isDark() ? kDarkLinkStyle : kLightLinkStyle) + text.mid(close);
        from = close;
    }
    return result;
}

void QCVTheme::slotObjectDestroyed(QObject* object) {
    windows_.erase(std::remove_if(windows_.begin(), windows_.end(),
                                  [object](const Registered& r) { return r.object == object; }),
                   windows_.end());
}

void QCVTheme::resetQLabelLink(QLabel* pLabel) {
    if (pLabel)
        pLabel->setText(recolourLinks(pLabel->text()));
}

}  // namespace vlm
