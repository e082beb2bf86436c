#include "MainWindow/Settings.h"

#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QKeyEvent>
#include <QListView>
#include <QPointer>
#include <QPushButton>
#include <QStandardItemModel>
#include <QStyleOptionViewItem>
#include <QTimer>

#include "Agent/AgentFixture.h"
#include "MainWindow/Tray.h"

namespace {

using Texts = std::vector<std::string>;
using Settings = vlm::MainWindow::Settings;

// A list's rows: "X" checked, "-" unchecked, "x" and "." the same but disabled; texts after.
std::string rows(const QStandardItemModel* model, bool withTexts = false) {
    std::string states;
    for (int row = 0; row < model->rowCount(); ++row) {
        const QStandardItem* item = model->item(row);
        const bool checked = item->checkState() == Qt::Checked;
        states += item->isEnabled() ? (checked ? 'X' : '-') : (checked ? 'x' : '.');
        if (withTexts)
            states += " " + item->text().toStdString() + "|";
    }
    return states;
}

// Clicks a row's check box as a user does: press and release on its indicator.
void click(QListView* view, int row) {
    QStyleOptionViewItem option;
    option.initFrom(view->viewport());
    option.rect = view->visualRect(view->model()->index(row, 0));
    option.features = QStyleOptionViewItem::HasCheckIndicator;
    const QPoint at = view->style()
                          ->subElementRect(QStyle::SE_ItemViewItemCheckIndicator, &option, view)
                          .center();
    for (QEvent::Type type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
        QMouseEvent event(type, at, view->viewport()->mapToGlobal(at), Qt::LeftButton,
                          type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton,
                          Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &event);
    }
}

void pressSpace(QListView* view, int row) {
    view->setCurrentIndex(view->model()->index(row, 0));
    for (QEvent::Type type : {QEvent::KeyPress, QEvent::KeyRelease}) {
        QKeyEvent event(type, Qt::Key_Space, Qt::NoModifier, " ");
        QApplication::sendEvent(view, &event);
    }
}

class SettingsTest : public vlm::test::AgentFixture {
protected:
    // Runs the tray's "&Settings..." with act driving the dialog; message boxes are accepted.
    void runSettings(const std::function<void(Settings&)>& act) {
        QPointer<Settings> seen;
        QTimer driver;
        driver.setInterval(5);
        QObject::connect(&driver, &QTimer::timeout, [&] {
            QWidget* modal = QApplication::activeModalWidget();
            if (auto* box = qobject_cast<QMessageBox*>(modal)) {
                boxes.push_back((box->windowTitle() + " | " + box->text()).toStdString());
                box->accept();
            } else if (auto* settings = qobject_cast<Settings*>(modal); settings && !seen) {
                act(*(seen = settings));
            }
        });
        driver.start();
        window->tray()->settingsAction->trigger();
        EXPECT_TRUE(seen.isNull());  // destroyed when the slot returned
    }
    void press(Settings& settings, QDialogButtonBox::StandardButton button) {
        settings.findChild<QDialogButtonBox*>()->button(button)->click();
    }

    std::unique_ptr<vlm::Agent> agent;
    std::unique_ptr<vlm::MainWindow> window;
    Texts boxes;
};

// Open, change by mouse and by keyboard, Ok, reopen: what the boxes showed is what is stored;
// a click that undoes itself is still a change, and Cancel changes nothing.
TEST_F(SettingsTest, RoundTripByMouseAndKeyboard) {
    agent = makeAgent(R"({"mode": 4})");
    window = std::make_unique<vlm::MainWindow>(*agent, false, true);
    runSettings([&](Settings& settings) {
        EXPECT_EQ(settings.size(), QSize(640, 480));
        EXPECT_EQ(settings.windowTitle() + settings.modeCombo->currentText(), "SettingsHybrid");
        EXPECT_EQ(rows(settings.pluginModel).substr(0, 4), "X-XX");
        EXPECT_EQ(settings.pluginModel->item(0)->text(),
                  "disco_bonjour.dll       \tDefault Device discovery via Bonjour");
        click(settings.discoveryList, 0);  // "All" off: the interface rows free and unchecked
        EXPECT_EQ(rows(settings.discoveryModel).find_first_not_of('-'), std::string::npos);
        click(settings.pluginList, 1);
        pressSpace(settings.pluginList, 2);
        settings.modeCombo->setCurrentIndex(1);
        press(settings, QDialogButtonBox::Ok);
    });
    EXPECT_EQ(boxes,
              (Texts{"Mode Changed | Mode will be set to \"Slave\" next time this Agent starts",
                     "Plug-ins Filtering Changed | Plug-ins filtering will be set next time "
                     "this Agent starts"}));
    const std::string saved = savedConfig();
    runSettings([&](Settings& settings) {
        EXPECT_EQ(rows(settings.pluginModel).substr(0, 4), "XX-X");
        EXPECT_EQ(settings.discoveryModel->item(0)->checkState(), Qt::Unchecked);
        EXPECT_EQ(settings.modeCombo->currentText(), "Hybrid");  // the running mode
        click(settings.pluginList, 1);
        click(settings.pluginList, 1);
        EXPECT_TRUE(settings.choices().pluginsChanged);
        press(settings, QDialogButtonBox::Cancel);
    });
    EXPECT_EQ(boxes.size(), 2u);
    EXPECT_EQ(savedConfig(), saved);
}

// The rows from the interfaces, the choices in the dialog's order with their messages, and a
// configuration that cannot be written.
TEST_F(SettingsTest, ApplyTellsWhatWaitsForTheNextStart) {
    const std::vector<vlm::InterfaceAddress> interfaces{
        {"Studio A", "AA:00:00:00:00:01", "10.0.0.5", "255.255.255.0"},
        {"Studio A", "AA:00:00:00:00:01", "172.16.4.2", "255.255.0.0"},
        {"Studio B", "BB:00:00:00:00:02", "192.168.7.9", "255.0.255.0"}};
    agent = makeAgent(R"({"mode": 4, "server": {"ip": "172.16.4.2"}, "discovery": {"filtering":
        [{"hardware_id": "CC:00:00:00:00:09"}, {"hardware_id": "BB:00:00:00:00:02"}]}})");
    auto settings = std::make_unique<Settings>(*agent, config, interfaces);
    EXPECT_EQ(settings->addressCombo->currentText().toStdString() +
                  std::to_string(settings->addressCombo->count()),
              "172.16.4.24");
    EXPECT_EQ(rows(settings->discoveryModel, true),
              "- All|- 10.0.0.x\t(Studio A)|- 172.16.x.x\t(Studio A)|X 192.x.7.x\t(Studio B)|"
              "X CC:00:00:00:00:09\t(not available)|");
    EXPECT_EQ(settings->modeCombo->itemData(2).toInt() * 10 + settings->modeCombo->currentIndex(),
              42);
    // One of an interface's rows chooses it; unchecking an absent one lets it go.
    settings->discoveryModel->item(1)->setCheckState(Qt::Checked);
    settings->discoveryModel->item(4)->setCheckState(Qt::Unchecked);
    settings->addressCombo->setCurrentIndex(0);
    settings->modeCombo->setCurrentIndex(0);
    settings->pluginModel->item(0)->setCheckState(Qt::Unchecked);
    auto recorder = [this](QWidget* parent, const QString& title, const QString& text,
                           QMessageBox::Icon icon, QMessageBox::StandardButtons buttons) {
        EXPECT_TRUE(!parent && buttons == QMessageBox::Ok);
        boxes.push_back((title + " | " + text + " | ").toStdString() + std::to_string(icon));
        return int(QMessageBox::Ok);
    };
    vlm::applySettings(*agent, settings->choices(), recorder);
    EXPECT_EQ(
        boxes,
        (Texts{"Web Server Address Changed | Web Server Address will be set next "
               "time this Agent starts | 1",
               "Mode Changed | Mode will be set to \"Master\" next time this Agent starts | 1",
               "Plug-ins Filtering Changed | Plug-ins filtering will be set next "
               "time this Agent starts | 1"}));
    const std::string saved = savedConfig();
    for (
        const char* part :
        {R"("server":{"ip":""})", R"("mode":1)",
         R"("filtering":[{"hardware_id":"AA:00:00:00:00:01"},{"hardware_id":"BB:00:00:00:00:02"}])",
         R"({"name":"disco_bonjour.dll","descr":"Default Device discovery via Bonjour","enabled":false})"})
        EXPECT_NE(saved.find(part), std::string::npos) << part << "\n" << saved;
    EXPECT_EQ(agent->mode, vlm::kModeHybrid);  // the running agent keeps its mode

    settings = std::make_unique<Settings>(*agent, config, interfaces);
    EXPECT_EQ(rows(settings->discoveryModel), "-XXX");
    settings->discoveryModel->item(0)->setCheckState(Qt::Checked);  // "All" wins: ["0"]
    settings->modeCombo->setCurrentIndex(1);
    boxes.clear();
    testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appData.path());
        vlm::applySettings(*agent, settings->choices(), recorder);
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(boxes, Texts{"Settings Not Saved | The settings could not be written to " +
                           appData.file("config.json") +
                           " (Permission denied). They stay as they were. | 2"});
    EXPECT_EQ(savedConfig(), saved);
    EXPECT_EQ(settings->choices().discoveryFilter, Texts{"0"});
}

}  // namespace
