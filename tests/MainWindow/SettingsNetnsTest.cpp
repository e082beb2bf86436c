// The settings dialog on the interfaces the kernel really reports. Each test moves its process
// into a network namespace of its own (root), where it makes and removes interfaces at will
// without touching the machine's network.

#include <sched.h>
#include <unistd.h>

#include <QComboBox>
#include <QCoreApplication>
#include <QNetworkInterface>
#include <QStandardItemModel>
#include <cstring>

#include "Agent/AgentFixture.h"
#include "MainWindow/Settings.h"
#include "MainWindow/UiTestSupport.h"

namespace {

using Texts = std::vector<std::string>;
using Settings = vlm::MainWindow::Settings;
using vlm::test::rowStates;
using vlm::test::rowTexts;

class SettingsNetns : public vlm::test::AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        ASSERT_EQ(geteuid(), 0u) << "needs root: the test makes a network namespace";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << std::strerror(errno);
    }

    static int sh(const std::string& command) { return std::system(command.c_str()); }

    // From the kernel through Qt: /sys shows the namespace it was mounted in, not ours.
    static std::string hardwareAddress(const QString& interface) {
        return QNetworkInterface::interfaceFromName(interface).hardwareAddress().toStdString();
    }

    std::unique_ptr<Settings> open() {
        auto settings = std::make_unique<Settings>(*agent, config);
        settings->show();
        QCoreApplication::processEvents();
        return settings;
    }

    int boxes = 0;
    vlm::MessageBoxFunction countBoxes = [this](QWidget*, const QString&, const QString&,
                                                QMessageBox::Icon, QMessageBox::StandardButtons) {
        ++boxes;
        return int(QMessageBox::Ok);
    };
    std::unique_ptr<vlm::Agent> agent;
};

TEST_F(SettingsNetns, WithOnlyTheLoopbackThereIsNothingToChooseButAutoAndAll) {
    ASSERT_EQ(sh("ip link set lo up"), 0);
    agent = makeAgent(R"({"server": {"ip": "10.88.0.5"}})");
    auto settings = open();
    EXPECT_EQ(settings->addressCombo->count(), 1);
    EXPECT_EQ(settings->addressCombo->currentText(), "Auto");
    EXPECT_EQ(rowTexts(settings->discoveryModel), Texts{"All"});
    EXPECT_EQ(rowStates(settings->discoveryModel), "X");
    vlm::applySettings(*agent, settings->choices(), countBoxes);
    EXPECT_EQ(boxes, 1);  // the address went back to "Auto"
    EXPECT_NE(savedConfig().find(R"("server":{"ip":""})"), std::string::npos) << savedConfig();
    EXPECT_NE(savedConfig().find(R"("filtering":[{"hardware_id":"0"}])"), std::string::npos)
        << savedConfig();
}

TEST_F(SettingsNetns, AnInterfaceThatVanishesWhileTheDialogIsOpen) {
    ASSERT_EQ(sh("ip link add velmor0 type veth peer name velmor1 && "
                 "ip addr add 10.88.0.5/24 dev velmor0 && ip addr add 10.89.1.5/16 dev velmor0 && "
                 "ip link set velmor0 up && ip link set velmor1 up"),
              0);
    const std::string id = hardwareAddress("velmor0");
    ASSERT_FALSE(id.empty());
    agent = makeAgent(R"({"server": {"ip": "10.88.0.5"}})");
    auto settings = open();
    EXPECT_EQ(settings->addressCombo->currentText(), "10.88.0.5");
    EXPECT_EQ(rowTexts(settings->discoveryModel),
              (Texts{"All", "10.88.0.x\t(velmor0)", "10.89.x.x\t(velmor0)"}));
    EXPECT_EQ(rowStates(settings->discoveryModel), "X..");
    EXPECT_EQ(settings->discoveryModel->item(1)->data(vlm::kHardwareAddressRole).toString(),
              QString::fromStdString(id));

    ASSERT_EQ(sh("ip link del velmor0"), 0);
    settings->discoveryModel->item(0)->setCheckState(Qt::Unchecked);
    settings->discoveryModel->item(2)->setCheckState(Qt::Checked);
    vlm::applySettings(*agent, settings->choices(), countBoxes);
    EXPECT_EQ(boxes, 0);
    EXPECT_NE(savedConfig().find(R"("filtering":[{"hardware_id":")" + id + R"("}])"),
              std::string::npos)
        << savedConfig();
    // The address stays configured although nothing carries it now.
    EXPECT_NE(savedConfig().find(R"("server":{"ip":"10.88.0.5"})"), std::string::npos)
        << savedConfig();

    // Reopened without the interface, the filter still shows what is stored; an address that
    // no interface carries shows as "Auto", and Ok stores that.
    settings = open();
    EXPECT_EQ(settings->addressCombo->currentText(), "Auto");
    EXPECT_EQ(rowTexts(settings->discoveryModel), (Texts{"All", id + "\t(not available)"}));
    EXPECT_EQ(rowStates(settings->discoveryModel), "-X");
    vlm::applySettings(*agent, settings->choices(), countBoxes);
    EXPECT_EQ(boxes, 1);  // "Auto" is a change of address; the filter is kept
    EXPECT_NE(savedConfig().find(R"("filtering":[{"hardware_id":")" + id + R"("}])"),
              std::string::npos)
        << savedConfig();
}

}  // namespace
