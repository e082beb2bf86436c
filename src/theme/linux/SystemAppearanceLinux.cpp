#include "theme/linux/SystemAppearanceLinux.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QGuiApplication>
#include <QObject>
#include <QVariant>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Log.h"

namespace vlm {

namespace {
const char* const kPortalService = "org.freedesktop.portal.Desktop";
const char* const kPortalPath = "/org/freedesktop/portal/desktop";
const char* const kSettingsInterface = "org.freedesktop.portal.Settings";
const char* const kAppearanceNamespace = "org.freedesktop.appearance";
const char* const kColourSchemeKey = "color-scheme";
// A portal that is slow to answer must not freeze the tray for long.
constexpr int kPortalTimeoutMs = 1000;

enum ColourScheme { kNoPreference = 0, kPreferDark = 1, kPreferLight = 2, kNoAnswer = -1 };

// Read answers a variant inside a variant; ReadOne (newer portals) a single one.
QVariant unwrap(QVariant value) {
    while (value.userType() == qMetaTypeId<QDBusVariant>())
        value = qvariant_cast<QDBusVariant>(value).variant();
    return value;
}

/// \brief Receives the portal's SettingChanged signal on the GUI thread.
class PortalWatcher : public QObject {
    Q_OBJECT
public:
    explicit PortalWatcher(std::function<void()> changed) : changed_(std::move(changed)) {}

public slots:
    void settingChanged(const QString& group, const QString& key, const QDBusVariant& value) {
        Q_UNUSED(value);
        if (group != QLatin1String(kAppearanceNamespace) || key != QLatin1String(kColourSchemeKey))
            return;
        VLM_LOG(6, "The desktop's colour scheme has changed\n");
        changed_();
    }

private:
    std::function<void()> changed_;
};

class LinuxAppearance : public SystemAppearance {
public:
    explicit LinuxAppearance(const QPalette& platformPalette) : platformPalette_(platformPalette) {}

    bool isDark() override {
        const char* forced = std::getenv("VELMOR_THEME");
        if (forced && std::strcmp(forced, "dark") == 0)
            return true;
        if (forced && std::strcmp(forced, "light") == 0)
            return false;
        switch (portalColourScheme()) {
            case kPreferDark:
                return true;
            case kPreferLight:
                return false;
            default:
                return isDarkPalette(platformPalette_);
        }
    }

    void setDarkTitleBar(QWidget*, bool) override {}

    void watch(std::function<void()> changed) override {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected())
            return;
        watcher_ = std::make_unique<PortalWatcher>([this, changed] {
            // A portal that appeared since it last failed is worth asking again.
            portalAnswers_ = true;
            changed();
        });
        bus.connect(kPortalService, kPortalPath, kSettingsInterface, "SettingChanged",
                    watcher_.get(), SLOT(settingChanged(QString, QString, QDBusVariant)));
    }

private:
    int portalColourScheme() {
        if (!portalAnswers_)
            return kNoAnswer;
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected())
            return kNoAnswer;
        QDBusMessage call =
            QDBusMessage::createMethodCall(kPortalService, kPortalPath, kSettingsInterface, "Read");
        call << QString(kAppearanceNamespace) << QString(kColourSchemeKey);
        const QDBusMessage reply = bus.call(call, QDBus::Block, kPortalTimeoutMs);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
            // Without a portal every later question would wait for the same failure.
            portalAnswers_ = false;
            return kNoAnswer;
        }
        bool ok = false;
        const uint scheme = unwrap(reply.arguments().first()).toUInt(&ok);
        return ok ? static_cast<int>(scheme) : kNoAnswer;
    }

    QPalette platformPalette_;
    std::atomic<bool> portalAnswers_{true};
    std::unique_ptr<PortalWatcher> watcher_;
};
}  // namespace

std::unique_ptr<SystemAppearance> makeLinuxAppearance(const QPalette& platformPalette) {
    return std::make_unique<LinuxAppearance>(platformPalette);
}

std::unique_ptr<SystemAppearance> SystemAppearance::create() {
    // Taken before the theme sets its own palette, so it stays the desktop's.
    return makeLinuxAppearance(QGuiApplication::palette());
}

}  // namespace vlm

#include "SystemAppearanceLinux.moc"
