#include "MainWindow/Settings.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QLabel>
#include <QListView>
#include <QMessageBox>
#include <QMouseEvent>
#include <QNetworkInterface>
#include <QPointer>
#include <QPushButton>
#include <QStandardItemModel>
#include <QStyle>
#include <QStyleOptionViewItem>
#include <QTimer>

#include "Agent/AgentFixture.h"
#include "MainWindow/Tray.h"
#include "MainWindow/UiTestSupport.h"
#include "Roles.h"

namespace {

using Texts = std::vector<std::string>;
using vlm::InterfaceAddress;
using vlm::test::rowStates;
using vlm::test::rowTexts;
using Settings = vlm::MainWindow::Settings;

// Two addresses on one interface and a second interface, for the rules the machine's own
// interfaces may not show.
const std::vector<InterfaceAddress> kTwoInterfaces{
    {"Studio A", "AA:00:00:00:00:01", "10.0.0.5", "255.255.255.0"},
    {"Studio A", "AA:00:00:00:00:01", "172.16.4.2", "255.255.0.0"},
    {"Studio B", "BB:00:00:00:00:02", "192.168.7.9", "255.0.255.0"},
};

// Clicks a row's check box as a user does: press and release on its indicator.
void clickCheckBox(QListView* view, int row) {
    const QModelIndex index = view->model()->index(row, 0);
    QStyleOptionViewItem option;
    option.initFrom(view->viewport());
    option.rect = view->visualRect(index);
    option.features = QStyleOptionViewItem::HasCheckIndicator | QStyleOptionViewItem::HasDisplay;
    option.text = index.data().toString();
    option.font = view->font();
    option.fontMetrics = view->fontMetrics();
    const QPoint at = view->style()
                          ->subElementRect(QStyle::SE_ItemViewItemCheckIndicator, &option, view)
                          .center();
    ASSERT_TRUE(option.rect.contains(at)) << "row " << row << " is not laid out";
    QWidget* viewport = view->viewport();
    QMouseEvent press(QEvent::MouseButtonPress, at, viewport->mapToGlobal(at), Qt::LeftButton,
                      Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &press);
    QMouseEvent release(QEvent::MouseButtonRelease, at, viewport->mapToGlobal(at), Qt::LeftButton,
                        Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &release);
}

class SettingsTest : public vlm::test::AgentFixture {
protected:
    void TearDown() override { vlm::dpiScale = 1.0f; }

    std::unique_ptr<Settings> open(const std::vector<InterfaceAddress>& addresses) {
        auto settings = std::make_unique<Settings>(*agent, config, addresses);
        settings->show();
        QCoreApplication::processEvents();
        return settings;
    }
    std::unique_ptr<Settings> openOnMachine() {
        auto settings = std::make_unique<Settings>(*agent, config);
        settings->show();
        QCoreApplication::processEvents();
        return settings;
    }

    std::function<int(QWidget*, const QString&, const QString&, QMessageBox::Icon,
                      QMessageBox::StandardButtons)>
    recorder() {
        return [this](QWidget* parent, const QString& title, const QString& text,
                      QMessageBox::Icon icon, QMessageBox::StandardButtons buttons) {
            EXPECT_EQ(parent, nullptr);
            EXPECT_EQ(icon, QMessageBox::Information);
            EXPECT_EQ(buttons, QMessageBox::Ok);
            boxes.push_back((title + " | " + text).toStdString());
            return int(QMessageBox::Ok);
        };
    }

    std::unique_ptr<vlm::Agent> agent;
    Texts boxes;
};

TEST(DiscoveryPatternTest, ZeroMaskPartsBecomeX) {
    EXPECT_EQ(vlm::discoveryPattern("192.168.1.20", "255.255.255.0"), "192.168.1.x");
    EXPECT_EQ(vlm::discoveryPattern("10.1.2.3", "255.0.255.0"), "10.x.2.x");
    EXPECT_EQ(vlm::discoveryPattern("10.1.2.3", "255.255.255.128"), "10.1.2.3");
    EXPECT_EQ(vlm::discoveryPattern("10.1.2.3", "255.255.255.255"), "10.1.2.3");
    EXPECT_EQ(vlm::discoveryPattern("172.16.4.2", "255.240.0.0"), "172.16.x.x");
}

TEST_F(SettingsTest, RowsFollowTheMachinesInterfaces) {
    agent = makeAgent("{}");
    Texts addresses{"Auto"};
    Texts rows{"All"};
    std::vector<QString> hardware;
    for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
        if (!(interface.flags() & QNetworkInterface::IsUp) ||
            (interface.flags() & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            QStringList parts = entry.ip().toString().split('.');
            const QStringList mask = entry.netmask().toString().split('.');
            for (int i = 0; i < 4; ++i)
                if (mask[i] == "0")
                    parts[i] = "x";
            addresses.push_back(entry.ip().toString().toStdString());
            rows.push_back(
                (parts.join('.') + "\t(" + interface.humanReadableName() + ")").toStdString());
            hardware.push_back(interface.hardwareAddress());
        }
    }
    if (hardware.empty())
        GTEST_SKIP() << "this machine has no usable IPv4 interface";

    auto settings = openOnMachine();
    Texts combo;
    for (int i = 0; i < settings->addressCombo->count(); ++i) {
        combo.push_back(settings->addressCombo->itemText(i).toStdString());
        EXPECT_FALSE(settings->addressCombo->itemData(i).isValid());
    }
    EXPECT_EQ(combo, addresses);
    EXPECT_EQ(std::count(combo.begin(), combo.end(), "127.0.0.1"), 0);
    EXPECT_EQ(settings->addressCombo->currentIndex(), 0);
    EXPECT_EQ(rowTexts(settings->discoveryModel), rows);
    for (std::size_t i = 0; i < hardware.size(); ++i)
        EXPECT_EQ(settings->discoveryModel->item(int(i) + 1)->data(vlm::kHardwareAddressRole),
                  hardware[i]);
    // No filter stored: the agent's ["0"] checks "All" and locks the interface rows.
    EXPECT_EQ(rowStates(settings->discoveryModel), "X" + std::string(hardware.size(), '.'));
}

TEST_F(SettingsTest, ConfiguredAddressIsPreselectedElseAuto) {
    const std::vector<InterfaceAddress> machine =
        vlm::usableInterfaceAddresses(QNetworkInterface::allInterfaces());
    if (machine.empty())
        GTEST_SKIP() << "this machine has no usable IPv4 interface";
    const std::string ip = machine.back().ip.toStdString();

    agent = makeAgent(R"({"server": {"ip": ")" + ip + R"("}})");
    auto settings = openOnMachine();
    EXPECT_EQ(settings->addressCombo->currentText().toStdString(), ip);
    EXPECT_EQ(settings->choices().webServerAddress, ip);
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_TRUE(boxes.empty());  // nothing changed

    agent = makeAgent(R"({"server": {"ip": "203.0.113.77"}})");
    settings = openOnMachine();
    EXPECT_EQ(settings->addressCombo->currentIndex(), 0);
    EXPECT_EQ(settings->choices().webServerAddress, "");
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_EQ(boxes, Texts{"Web Server Address Changed | Web Server Address will be set next "
                           "time this Agent starts"});
    EXPECT_NE(savedConfig().find(R"("server":{"ip":""})"), std::string::npos) << savedConfig();
}

TEST_F(SettingsTest, ModeComboCarriesTheModeValues) {
    agent = makeAgent(R"({"mode": 2})");
    auto settings = open(kTwoInterfaces);
    QComboBox* modes = settings->modeCombo;
    ASSERT_EQ(modes->count(), 3);
    EXPECT_EQ(modes->itemText(0), "Master");
    EXPECT_EQ(modes->itemData(0).toInt(), 1);
    EXPECT_EQ(modes->itemText(1), "Slave");
    EXPECT_EQ(modes->itemData(1).toInt(), 2);
    EXPECT_EQ(modes->itemText(2), "Hybrid");
    EXPECT_EQ(modes->itemData(2).toInt(), 4);
    EXPECT_EQ(modes->currentText(), "Slave");
    EXPECT_EQ(settings->choices().mode, vlm::kModeSlave);
}

TEST_F(SettingsTest, OneInterfaceManyAddresses) {
    agent = makeAgent(R"({"discovery": {"filtering": [{"hardware_id": "AA:00:00:00:00:01"}]}})");
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(
        rowTexts(settings->discoveryModel),
        (Texts{"All", "10.0.0.x\t(Studio A)", "172.16.x.x\t(Studio A)", "192.x.7.x\t(Studio B)"}));
    EXPECT_EQ(rowStates(settings->discoveryModel), "-XX-");
    EXPECT_EQ(settings->choices().discoveryFilter,
              (Texts{"AA:00:00:00:00:01", "AA:00:00:00:00:01"}));

    // One of the two rows is enough to choose the interface.
    clickCheckBox(settings->discoveryList, 1);
    clickCheckBox(settings->discoveryList, 3);
    EXPECT_EQ(rowStates(settings->discoveryModel), "--XX");
    EXPECT_EQ(settings->choices().discoveryFilter,
              (Texts{"AA:00:00:00:00:01", "BB:00:00:00:00:02"}));
    vlm::applySettings(*agent, settings->choices(), recorder());
    settings = open(kTwoInterfaces);
    EXPECT_EQ(rowStates(settings->discoveryModel), "-XXX");
}

TEST_F(SettingsTest, AllOverridesEveryOtherRow) {
    agent = makeAgent(R"({"discovery": {"filtering": [{"hardware_id": "BB:00:00:00:00:02"}]}})");
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(rowStates(settings->discoveryModel), "---X");
    clickCheckBox(settings->discoveryList, 0);
    EXPECT_EQ(rowStates(settings->discoveryModel), "Xxxx");
    EXPECT_EQ(settings->choices().discoveryFilter, Texts{"0"});

    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_NE(savedConfig().find(R"("discovery":{"filtering":[{"hardware_id":"0"}]})"),
              std::string::npos)
        << savedConfig();
    EXPECT_TRUE(boxes.empty());

    settings = open(kTwoInterfaces);
    EXPECT_EQ(rowStates(settings->discoveryModel), "X...");
    clickCheckBox(settings->discoveryList, 0);  // unchecking "All" unchecks and frees the rest
    EXPECT_EQ(rowStates(settings->discoveryModel), "----");
}

TEST_F(SettingsTest, NothingCheckedStoresAnEmptyFilter) {
    agent = makeAgent("{}");
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(rowStates(settings->discoveryModel), "X...");
    clickCheckBox(settings->discoveryList, 0);
    EXPECT_TRUE(settings->choices().discoveryFilter.empty());
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_NE(savedConfig().find(R"("discovery":{"filtering":[]})"), std::string::npos)
        << savedConfig();

    settings = open(kTwoInterfaces);
    EXPECT_EQ(rowStates(settings->discoveryModel), "----");
}

TEST_F(SettingsTest, WithoutUsableInterfacesOnlyAutoAndAllRemain) {
    agent = makeAgent(R"({"server": {"ip": "10.0.0.5"}})");
    auto settings = open({});
    EXPECT_EQ(settings->addressCombo->count(), 1);
    EXPECT_EQ(settings->addressCombo->currentText(), "Auto");
    EXPECT_EQ(rowTexts(settings->discoveryModel), Texts{"All"});
    EXPECT_EQ(rowStates(settings->discoveryModel), "X");
    clickCheckBox(settings->discoveryList, 0);
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_NE(savedConfig().find(R"("server":{"ip":""},)"), std::string::npos) << savedConfig();
    EXPECT_NE(savedConfig().find(R"("discovery":{"filtering":[]})"), std::string::npos)
        << savedConfig();
}

TEST_F(SettingsTest, AChosenInterfaceThatIsGoneKeepsItsRow) {
    agent = makeAgent(R"({"discovery": {"filtering": [{"hardware_id": "CC:00:00:00:00:09"},
                                                      {"hardware_id": "BB:00:00:00:00:02"}]}})");
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(rowTexts(settings->discoveryModel),
              (Texts{"All", "10.0.0.x\t(Studio A)", "172.16.x.x\t(Studio A)",
                     "192.x.7.x\t(Studio B)", "CC:00:00:00:00:09\t(not available)"}));
    EXPECT_EQ(rowStates(settings->discoveryModel), "---XX");
    EXPECT_EQ(settings->discoveryModel->item(4)->data(vlm::kHardwareAddressRole).toString(),
              "CC:00:00:00:00:09");
    // Ok keeps the choice made while the interface was there.
    EXPECT_EQ(settings->choices().discoveryFilter,
              (Texts{"BB:00:00:00:00:02", "CC:00:00:00:00:09"}));
    // Unchecking it is how the user lets it go.
    clickCheckBox(settings->discoveryList, 4);
    vlm::applySettings(*agent, settings->choices(), recorder());
    settings = open(kTwoInterfaces);
    EXPECT_EQ(rowTexts(settings->discoveryModel).size(), 4u);
    EXPECT_EQ(rowStates(settings->discoveryModel), "---X");
}

TEST_F(SettingsTest, PluginRowsArePaddedNames) {
    agent = makeAgent(R"({"plugins": [
        {"name": "disco_bonjour.dll", "descr": "Default Device discovery via Bonjour",
         "enabled": true},
        {"name": "a_plugin_name_longer_than_24.dll", "descr": "Long", "enabled": false},
        {"name": "exactly_24_characters.dl", "descr": "Edge", "enabled": true}]})");
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(rowTexts(settings->pluginModel),
              (Texts{"disco_bonjour.dll       \tDefault Device discovery via Bonjour",
                     "a_plugin_name_longer_than_24.dll\tLong", "exactly_24_characters.dl\tEdge"}));
    EXPECT_EQ(rowStates(settings->pluginModel), "X-X");
    EXPECT_FALSE(settings->pluginsChanged);
}

TEST_F(SettingsTest, SeededPluginTableIsListed) {
    agent = makeAgent("{}");
    auto settings = open(kTwoInterfaces);
    ASSERT_EQ(settings->pluginModel->rowCount(), 10);
    EXPECT_EQ(settings->pluginModel->item(3)->text(),
              "proxy_native.dll        \tNative generic proxy (converters, interfaces, cards, "
              "virtual devices and more");
    EXPECT_EQ(rowStates(settings->pluginModel), "X-XXXX----");
}

TEST_F(SettingsTest, APluginClickIsAChangeEvenWhenUndone) {
    agent = makeAgent("{}");
    auto settings = open(kTwoInterfaces);
    clickCheckBox(settings->pluginList, 1);
    EXPECT_TRUE(settings->plugins[1].enabled);
    EXPECT_TRUE(settings->pluginsChanged);
    clickCheckBox(settings->pluginList, 1);
    EXPECT_FALSE(settings->plugins[1].enabled);
    EXPECT_EQ(rowStates(settings->pluginModel), "X-XXXX----");

    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_EQ(boxes, Texts{"Plug-ins Filtering Changed | Plug-ins filtering will be set next "
                           "time this Agent starts"});
    EXPECT_NE(
        savedConfig().find(
            R"x({"name":"disco_SAP.dll","descr":"SAP Streams discovery (Dante & AES67)","enabled":false})x"),
        std::string::npos)
        << savedConfig();
}

TEST_F(SettingsTest, ApplyingTellsWhatWaitsForTheNextStart) {
    const std::vector<InterfaceAddress> machine =
        vlm::usableInterfaceAddresses(QNetworkInterface::allInterfaces());
    if (machine.empty())
        GTEST_SKIP() << "this machine has no usable IPv4 interface";
    agent = makeAgent(R"({"mode": 4})");
    auto settings = openOnMachine();
    settings->addressCombo->setCurrentIndex(1);
    settings->modeCombo->setCurrentIndex(0);
    clickCheckBox(settings->pluginList, 0);
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_EQ(boxes,
              (Texts{"Web Server Address Changed | Web Server Address will be set next time this "
                     "Agent starts",
                     "Mode Changed | Mode will be set to \"Master\" next time this Agent starts",
                     "Plug-ins Filtering Changed | Plug-ins filtering will be set next time this "
                     "Agent starts"}));
    const std::string saved = savedConfig();
    EXPECT_NE(saved.find(R"("mode":1)"), std::string::npos) << saved;
    EXPECT_NE(saved.find(R"("ip":")" + machine.front().ip.toStdString() + "\""), std::string::npos)
        << saved;
    EXPECT_NE(saved.find(R"({"name":"disco_bonjour.dll","descr":"Default Device discovery via )"
                         R"(Bonjour","enabled":false})"),
              std::string::npos)
        << saved;
    EXPECT_EQ(agent->mode, vlm::kModeHybrid);  // the running agent keeps its mode

    // Reopened, the dialog shows the running mode again; that stores nothing.
    boxes.clear();
    settings = openOnMachine();
    EXPECT_EQ(settings->modeCombo->currentText(), "Hybrid");
    vlm::applySettings(*agent, settings->choices(), recorder());
    EXPECT_TRUE(boxes.empty());
    EXPECT_NE(savedConfig().find(R"("mode":1)"), std::string::npos) << savedConfig();
}

TEST_F(SettingsTest, LayoutAndSizes) {
    agent = makeAgent("{}");
    vlm::dpiScale = 1.5f;
    auto settings = open(kTwoInterfaces);
    EXPECT_EQ(settings->windowTitle(), "Settings");
    EXPECT_FALSE(settings->windowFlags() & Qt::WindowContextHelpButtonHint);
    EXPECT_EQ(settings->size(), QSize(960, 720));
    Texts labels;
    for (QLabel* label : settings->findChildren<QLabel*>())
        labels.push_back(label->text().toStdString());
    EXPECT_EQ(labels,
              (Texts{"Web Server Address:", "Mode:", "Discovery Filter:", "Plug-ins Filter:"}));
    auto* box = settings->findChild<QDialogButtonBox*>();
    ASSERT_NE(box, nullptr);
    ASSERT_EQ(box->buttons().size(), 2);
    for (QAbstractButton* button : box->buttons()) {
        EXPECT_GE(button->width(), 100);
        EXPECT_GE(button->height(), 26);
        EXPECT_EQ(button->minimumSize(), QSize(100, 26));
        EXPECT_EQ(button->style()->objectName(), "fusion");
    }
    EXPECT_EQ(box->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
}

class TraySettingsTest : public SettingsTest {
protected:
    void TearDown() override {
        window.reset();
        SettingsTest::TearDown();
    }
    // Runs the tray's "&Settings..." with act driving the dialog; message boxes are accepted.
    void runSettings(const std::function<void(Settings&)>& act) {
        window = std::make_unique<vlm::MainWindow>(*agent, false);
        QPointer<Settings> seen;
        QTimer driver;
        driver.setInterval(5);
        QObject::connect(&driver, &QTimer::timeout, [&] {
            QWidget* modal = QApplication::activeModalWidget();
            if (auto* box = qobject_cast<QMessageBox*>(modal)) {
                boxes.push_back((box->windowTitle() + " | " + box->text()).toStdString());
                box->accept();
            } else if (auto* settings = qobject_cast<Settings*>(modal); settings && !seen) {
                seen = settings;
                act(*settings);
            }
        });
        driver.start();
        window->tray()->settingsAction->trigger();
        driver.stop();
        EXPECT_TRUE(seen.isNull());  // destroyed when the slot returned
    }
    std::unique_ptr<vlm::MainWindow> window;
};

TEST_F(TraySettingsTest, CancelOrCloseChangesNothing) {
    agent = makeAgent(R"({"mode": 4, "server": {"ip": "203.0.113.77"}})");
    config.save();
    const std::string before = savedConfig();
    for (bool close : {false, true}) {
        runSettings([close](Settings& settings) {
            settings.modeCombo->setCurrentIndex(0);
            settings.addressCombo->setCurrentIndex(0);
            settings.pluginsChanged = true;
            if (close)
                settings.close();
            else
                settings.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Cancel)->click();
        });
    }
    EXPECT_TRUE(boxes.empty());
    EXPECT_EQ(savedConfig(), before);
}

TEST_F(TraySettingsTest, OkAppliesThroughTheMessageBoxes) {
    agent = makeAgent(R"({"mode": 4})");
    runSettings([](Settings& settings) {
        settings.modeCombo->setCurrentIndex(1);
        settings.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    });
    EXPECT_EQ(boxes,
              Texts{"Mode Changed | Mode will be set to \"Slave\" next time this Agent starts"});
    EXPECT_NE(savedConfig().find(R"("mode":2)"), std::string::npos) << savedConfig();
    EXPECT_NE(savedConfig().find(R"("filtering":[{"hardware_id":"0"}])"), std::string::npos)
        << savedConfig();
}

TEST_F(TraySettingsTest, AnUnwritableConfigurationShowsWhatIsStored) {
    agent = makeAgent(R"({"mode": 4, "server": {"ip": "203.0.113.77"}})");
    config.save();
    const std::string before = savedConfig();
    const auto choose = [](Settings& settings) {
        settings.modeCombo->setCurrentIndex(0);
        settings.addressCombo->setCurrentIndex(0);
        clickCheckBox(settings.pluginList, 0);
        clickCheckBox(settings.discoveryList, 0);
        settings.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    };
    ::testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appData.path());
        runSettings(choose);
    }
    ::testing::internal::GetCapturedStdout();
    // One warning, and none of the messages that promise a change.
    EXPECT_EQ(boxes,
              Texts{"Settings Not Saved | The settings could not be written to " +
                    appData.file("config.json") + " (Permission denied). They stay as they were."});
    EXPECT_EQ(savedConfig(), before);

    // Opened again, the dialog shows what the file holds.
    boxes.clear();
    runSettings([](Settings& settings) {
        EXPECT_EQ(settings.modeCombo->currentText(), "Hybrid");
        EXPECT_EQ(rowStates(settings.pluginModel), "X-XXXX----");
        EXPECT_EQ(settings.discoveryModel->item(0)->checkState(), Qt::Checked);
        settings.reject();
    });
    EXPECT_TRUE(boxes.empty());

    // Writable again: the same choices are stored and announced.
    runSettings(choose);
    EXPECT_EQ(boxes.size(), 3u);
    EXPECT_NE(savedConfig().find(R"("mode":1)"), std::string::npos) << savedConfig();
}

TEST_F(SettingsTest, RendersInLightAndDarkThemes) {
    agent = makeAgent(R"({"discovery": {"filtering": [{"hardware_id": "AA:00:00:00:00:01"}]}})");
    vlm::test::ThemeSwitch theme;
    for (bool dark : {false, true}) {
        theme.apply(dark);
        auto settings = open(kTwoInterfaces);
        const QImage image = settings->grab().toImage();
        const QColor background = image.pixelColor(2, 2);
        EXPECT_EQ(background.lightness() < 60, dark) << background.name().toStdString();
        vlm::test::saveScreenshot(
            image, dark ? "offscreen-settings-dark.png" : "offscreen-settings-light.png");
    }
}

}  // namespace
