#include "plugins/PluginWindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QBuffer>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "Agent/Agent.h"
#include "AppConfig.h"
#include "EngineServer.h"
#include "LoopbackHttpServer.h"
#include "TestSupport.h"
#include "plugins/RowDisplay.h"

namespace {

using namespace vlm;
using test::LoopbackHttpServer;
using test::TempDir;

bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

QRect inWindow(QWidget* widget, QWidget* window) {
    return QRect(widget->mapTo(window, QPoint(0, 0)), widget->size());
}

QImage solidPng(QColor colour) {
    QImage image(40, 30, QImage::Format_RGB32);
    image.fill(colour);
    return image;
}

std::string pngBytes(QColor colour) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    solidPng(colour).save(&buffer, "PNG");
    return bytes.toStdString();
}

/// \brief An engine stand-in with plug-ins on disk, a catalogue server, and an agent attached
/// to the engine.
class PluginWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_CATALOGUE_HOST", catalogue.host().c_str(), 1);
        std::filesystem::create_directories(firstFolder());
        std::filesystem::create_directories(secondFolder());
        std::filesystem::create_directories(pictures.path());
        // Versions as the engine reads them from the file names.
        test::writeFile(firstFolder() + "/proxy_tessel_1.9.so", "");
        test::writeFile(firstFolder() + "/proxy_native_2.0.so", "");
        test::writeFile(secondFolder() + "/proxy_local_3.1.so", "");
        catalogue.serve("/plugins.json", catalogueText());
        catalogue.serve("/files/proxy_halden.dll", "halden plug-in bytes");
        catalogue.serve("/pictures/halden.png", pngBytes(Qt::blue));
        config.load(appData.file("config.json").c_str());
        agent = std::make_unique<Agent>(config);
    }

    void TearDown() override {
        window.reset();
        unsetenv("VELMOR_CATALOGUE_HOST");
    }

    std::string firstFolder() const { return engineRoot.path() + "/first"; }
    std::string secondFolder() const { return engineRoot.path() + "/second"; }

    std::string catalogueText(const std::string& extraPlugin = {}) const {
        const std::string url = catalogue.host() + "/files/";
        auto plugin = [&](const std::string& name, const std::string& certification, int major,
                          int minor, const std::string& windows) {
            return R"({"Name":")" + name + R"(","URL":")" + url + R"(","Description":"The )" +
                   name + R"( plug-in","Contact":"dev@example.org")" +
                   (windows.empty() ? "" : R"(,"Windows":")" + windows + "\"") +
                   R"(,"Certification":")" + certification + R"(","Major":)" +
                   std::to_string(major) + R"(,"Minor":)" + std::to_string(minor) + "}";
        };
        return R"({"Plugins":[)" + plugin("proxy_tessel", "release", 2, 0, "proxy_tessel.dll") +
               "," + plugin("proxy_native", "beta", 1, 5, "proxy_native.dll") + "," +
               plugin("proxy_halden", "experimental", 1, 0, "proxy_halden.dll") + "," +
               plugin("disco_sap", "Beta", 1, 0, "") + "," +
               plugin("proxy_evil", "release", 1, 0, "../../evil.dll") +
               (extraPlugin.empty()
                    ? ""
                    : "," + plugin(extraPlugin, "release", 1, 0, extraPlugin + ".dll")) +
               R"(],"Images":[{"Name":"proxy_halden","Proxy":"proxy_halden","Vendor":"Halden",)"
               R"("Product":"Stagebox","PNG_URL":")" +
               catalogue.host() +
               R"(/pictures/halden.png","ICNS_URL":"none"},)"
               R"({"Name":"proxy_tessel","Proxy":"proxy_tessel","Vendor":"Tessel",)"
               R"("Product":"Box","PNG_URL":"none","ICNS_URL":"none"}]})";
    }

    /// Starts the engine on these plug-in folders and attaches the agent to it.
    void startEngine(std::vector<std::string> folders) {
        engine = std::make_unique<kelvane::EngineServer>(std::move(folders), "", false);
        std::string error;
        ASSERT_TRUE(engine->start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
        agent->attachedServer = "127.0.0.1:" + std::to_string(engine->port());
    }

    /// What the tray does when it opens the manager, with the test's picture folder.
    void openWindow() {
        window = std::make_unique<PluginWindow>();
        auto configuration = agent->queryServer("$");
        ASSERT_TRUE(configuration);
        window->updateModel(*configuration);
        window->setUp({QString::fromStdString(pictures.path())});
    }

    RowDisplay* row(const std::string& name) const {
        for (RowDisplay* candidate : window->rows())
            if (candidate->entry().name == name)
                return candidate;
        return nullptr;
    }
    QLabel* label(const std::string& rowName, const char* cell) const {
        return row(rowName)->findChild<QLabel*>(cell);
    }
    QLabel* connectionLabel() const { return window->findChild<QLabel*>("connectionLabel"); }

    void download(const std::string& rowName) {
        auto* button = row(rowName)->findChild<QPushButton*>("downloadButton");
        ASSERT_TRUE(button);
        button->click();
        ASSERT_TRUE(waitUntil([&] { return row(rowName)->isDownloaded(); }));
    }

    TempDir appData;
    TempDir engineRoot;
    TempDir pictures;
    LoopbackHttpServer catalogue;
    AppConfig config;
    std::unique_ptr<Agent> agent;
    std::unique_ptr<kelvane::EngineServer> engine;
    std::unique_ptr<PluginWindow> window;
};

TEST_F(PluginWindowTest, ControlsAndConnectionLabel) {
    startEngine({firstFolder(), secondFolder()});
    openWindow();
    EXPECT_EQ(window->windowTitle(), "Plugin Manager");
    EXPECT_EQ(window->size(), QSize(800, 600));
    auto* update = window->findChild<QPushButton*>("updateButton");
    ASSERT_TRUE(update);
    EXPECT_EQ(update->text(), "Update info");
    EXPECT_EQ(update->geometry(), QRect(30, 20, 150, 30));
    auto* engineButton = window->findChild<QPushButton*>("engineButton");
    EXPECT_EQ(engineButton->text(), "Stop Engine");
    EXPECT_EQ(engineButton->geometry(), QRect(170, 20, 150, 30));
    EXPECT_TRUE(engineButton->isHidden());
    EXPECT_EQ(connectionLabel()->geometry(), QRect(660, 20, 120, 30));
    EXPECT_EQ(connectionLabel()->text(), "CONNECTED");
    EXPECT_EQ(connectionLabel()->styleSheet(), "QLabel { background-color: lightgreen; }");
    EXPECT_EQ(window->pluginFolders(), (std::vector<std::string>{firstFolder(), secondFolder()}));
}

TEST_F(PluginWindowTest, OneRowPerPluginWithItsStatus) {
    startEngine({firstFolder(), secondFolder()});
    openWindow();
    std::vector<std::string> names;
    for (RowDisplay* r : window->rows())
        names.push_back(r->entry().name);
    EXPECT_EQ(names, (std::vector<std::string>{"disco_sap", "proxy_evil", "proxy_halden",
                                               "proxy_local", "proxy_native", "proxy_tessel"}));

    EXPECT_EQ(label("proxy_tessel", "status")->text(), "OUTDATED");
    EXPECT_EQ(label("proxy_tessel", "status")->styleSheet(), "QLabel { background-color: red; }");
    EXPECT_EQ(label("proxy_native", "status")->text(), "UP TO DATE");
    EXPECT_EQ(label("proxy_native", "status")->styleSheet(),
              "QLabel { background-color: lightgreen; }");
    EXPECT_EQ(label("proxy_local", "description")->text(), "local unknown plugin");
    EXPECT_EQ(label("proxy_local", "status")->text(), "UP TO DATE");
    EXPECT_EQ(label("proxy_local", "stability")->text(), "unknown");
    EXPECT_EQ(label("disco_sap", "status")->text(), "N/A FOR YOUR\nSYSTEM");
    EXPECT_FALSE(label("disco_sap", "status")->isHidden());
    EXPECT_TRUE(row("disco_sap")->findChild<QPushButton*>("downloadButton")->isHidden());

    auto* button = row("proxy_halden")->findChild<QPushButton*>("downloadButton");
    EXPECT_EQ(button->text(), "DOWNLOAD\nNOW");
    EXPECT_FALSE(button->isHidden());
    EXPECT_TRUE(label("proxy_halden", "status")->isHidden());

    // Stability words and colours.
    EXPECT_EQ(label("proxy_tessel", "stability")->text(), "release");
    EXPECT_TRUE(
        label("proxy_tessel", "stability")->styleSheet().contains("background-color: lightgreen;"));
    EXPECT_EQ(label("proxy_native", "stability")->text(), "beta");
    EXPECT_TRUE(
        label("proxy_native", "stability")->styleSheet().contains("background-color: orange;"));
    EXPECT_EQ(label("proxy_halden", "stability")->text(), "experimental");
    EXPECT_TRUE(
        label("proxy_halden", "stability")->styleSheet().contains("background-color: red;"));
    EXPECT_EQ(label("disco_sap", "stability")->text(), "unknown");
    EXPECT_TRUE(label("disco_sap", "stability")->styleSheet().contains("background-color: gray;"));
    EXPECT_TRUE(label("disco_sap", "stability")->alignment() & Qt::AlignHCenter);
    EXPECT_FALSE(label("disco_sap", "name")->alignment() & Qt::AlignHCenter);
}

TEST_F(PluginWindowTest, HeaderAndRowGeometry) {
    startEngine({firstFolder()});
    openWindow();
    window->show();
    QCoreApplication::processEvents();
    QWidget* w = window.get();
    auto header = [&](const char* text) {
        return window->findChild<QLabel*>(QString("header:") + text);
    };
    EXPECT_EQ(inWindow(header("PLUG-INS"), w), QRect(30, 80, 530, 30));
    EXPECT_EQ(inWindow(header("Icons"), w), QRect(560, 80, 220, 60));
    EXPECT_EQ(inWindow(header("Name"), w), QRect(30, 110, 120, 30));
    EXPECT_EQ(inWindow(header("Description"), w), QRect(150, 110, 200, 30));
    EXPECT_EQ(inWindow(header("Stability"), w), QRect(350, 110, 90, 30));
    EXPECT_EQ(inWindow(header("Installed"), w), QRect(440, 110, 120, 30));
    EXPECT_TRUE(header("Name")->styleSheet().contains("border-top-width: 1px;"));
    EXPECT_TRUE(header("Name")->styleSheet().contains("border-left-width: 1px;"));

    int y = 140;
    const auto& rows = window->rows();
    for (std::size_t i = 0; i < rows.size(); ++i, y += RowDisplay::kHeight) {
        RowDisplay* r = rows[i];
        const int h = RowDisplay::kHeight;
        EXPECT_EQ(inWindow(r->findChild<QLabel*>("name"), w), QRect(30, y, 120, h));
        EXPECT_EQ(inWindow(r->findChild<QLabel*>("description"), w), QRect(150, y, 200, h));
        EXPECT_EQ(inWindow(r->findChild<QLabel*>("stability"), w), QRect(350, y, 90, h));
        EXPECT_EQ(inWindow(r->findChild<QLabel*>("status"), w), QRect(440, y, 120, h));
        const QString nameStyle = r->findChild<QLabel*>("name")->styleSheet();
        EXPECT_TRUE(nameStyle.contains("border-left-width: 1px;"));
        EXPECT_TRUE(nameStyle.contains("border-right-width: 1px;"));
        EXPECT_EQ(nameStyle.contains("border-bottom-width: 1px;"), i + 1 == rows.size());
    }
    auto* area = window->findChild<QWidget*>("rowArea");
    EXPECT_EQ(area->height(), 60 + static_cast<int>(rows.size()) * RowDisplay::kHeight + 30);
    auto* picture = row("proxy_halden")->findChild<QPushButton*>("fetch0");
    ASSERT_TRUE(picture);
    EXPECT_EQ(inWindow(picture, w).size(), QSize(120, 50));
    EXPECT_EQ(inWindow(picture, w).x(), 560);
}

TEST_F(PluginWindowTest, DownloadLandsInEveryPluginFolderOnce) {
    startEngine({firstFolder(), secondFolder()});
    openWindow();
    auto* button = row("proxy_halden")->findChild<QPushButton*>("downloadButton");
    button->click();
    button->click();  // a second click starts nothing
    row("proxy_halden")->download();
    ASSERT_TRUE(waitUntil([&] { return row("proxy_halden")->isDownloaded(); }));
    EXPECT_EQ(test::readFile(firstFolder() + "/proxy_halden.dll"), "halden plug-in bytes");
    EXPECT_EQ(test::readFile(secondFolder() + "/proxy_halden.dll"), "halden plug-in bytes");
    int fetches = 0;
    for (const auto& request : catalogue.requests())
        fetches += request.rfind("GET /files/proxy_halden.dll ", 0) == 0;
    EXPECT_EQ(fetches, 2);
    EXPECT_EQ(label("proxy_halden", "status")->text(), "RESTART VELMOR");
    EXPECT_EQ(label("proxy_halden", "status")->styleSheet(), "QLabel { background-color: red; }");
    EXPECT_TRUE(label("proxy_halden", "progress")->isHidden());
    EXPECT_TRUE(button->isHidden());

    // Until the window closes, a rebuilt row remembers the download.
    window->findChild<QPushButton*>("updateButton")->click();
    EXPECT_EQ(label("proxy_halden", "status")->text(), "RESTART VELMOR");
    EXPECT_TRUE(row("proxy_halden")->findChild<QPushButton*>("downloadButton")->isHidden());

    // Reopened, the row is built from the server's list again.
    openWindow();
    EXPECT_FALSE(row("proxy_halden")->findChild<QPushButton*>("downloadButton")->isHidden());
}

TEST_F(PluginWindowTest, UnwritableFirstFolderIsSkippedSilently) {
    startEngine({engineRoot.path() + "/missing", secondFolder()});
    openWindow();
    download("proxy_halden");
    EXPECT_EQ(test::readFile(secondFolder() + "/proxy_halden.dll"), "halden plug-in bytes");
    EXPECT_FALSE(test::exists(engineRoot.path() + "/missing/proxy_halden.dll"));
    EXPECT_TRUE(label("proxy_halden", "progress")->isHidden());
    EXPECT_EQ(label("proxy_halden", "status")->text(), "RESTART VELMOR");
}

TEST_F(PluginWindowTest, NoWritableFolderShowsFileOpenError) {
    startEngine({engineRoot.path() + "/missing", engineRoot.path() + "/also-missing"});
    openWindow();
    download("proxy_halden");
    EXPECT_EQ(label("proxy_halden", "progress")->text(), "File Open\nError");
    EXPECT_FALSE(label("proxy_halden", "progress")->isHidden());
}

TEST_F(PluginWindowTest, TraversalFileNameIsRefused) {
    startEngine({firstFolder()});
    openWindow();
    EXPECT_EQ(label("proxy_evil", "status")->text(), "N/A FOR YOUR\nSYSTEM");
    EXPECT_TRUE(row("proxy_evil")->findChild<QPushButton*>("downloadButton")->isHidden());
    row("proxy_evil")->download();  // even driven directly, nothing is written outside
    ASSERT_TRUE(waitUntil([&] { return row("proxy_evil")->isDownloaded(); }));
    EXPECT_FALSE(test::exists(engineRoot.path() + "/../evil.dll"));
    EXPECT_FALSE(test::exists(firstFolder() + "/../../evil.dll"));
    for (const auto& request : catalogue.requests())
        EXPECT_EQ(request.find("evil"), std::string::npos);
}

TEST_F(PluginWindowTest, NoCatalogueServerShowsNoRows) {
    startEngine({firstFolder()});
    setenv("VELMOR_CATALOGUE_HOST",
           ("127.0.0.1:" + std::to_string(test::freeLoopbackPort())).c_str(), 1);
    openWindow();
    EXPECT_EQ(connectionLabel()->text(), "COULD NOT CONNECT TO WEBSITE");
    EXPECT_EQ(connectionLabel()->styleSheet(), "QLabel { background-color: red; }");
    EXPECT_TRUE(window->rows().empty());
    EXPECT_FALSE(window->findChild<QWidget*>("rowArea"));

    window->findChild<QPushButton*>("updateButton")->click();
    EXPECT_EQ(connectionLabel()->text(), "TRYING TO CONNECT...");
    EXPECT_EQ(connectionLabel()->styleSheet(), "QLabel { background-color: orange; }");
    EXPECT_TRUE(window->rows().empty());

    setenv("VELMOR_CATALOGUE_HOST", catalogue.host().c_str(), 1);
    window->findChild<QPushButton*>("updateButton")->click();
    EXPECT_EQ(connectionLabel()->text(), "CONNECTED");
    EXPECT_EQ(window->rows().size(), 5u);
}

TEST_F(PluginWindowTest, CatalogueThatIsNotJsonKeepsTryingLabel) {
    startEngine({firstFolder()});
    catalogue.serve("/plugins.json", "<html>maintenance</html>");
    openWindow();
    EXPECT_EQ(connectionLabel()->text(), "COULD NOT CONNECT TO WEBSITE");
    EXPECT_TRUE(window->rows().empty());
}

TEST_F(PluginWindowTest, PicturesAreShownOrFetched) {
    startEngine({firstFolder()});
    solidPng(Qt::green).save(QString::fromStdString(pictures.file("Tessel_Box.png")), "PNG");
    openWindow();
    EXPECT_FALSE(label("proxy_tessel", "picture0")->isHidden());
    EXPECT_TRUE(row("proxy_tessel")->findChild<QPushButton*>("fetch0")->isHidden());
    EXPECT_FALSE(label("proxy_tessel", "picture0")->pixmap(Qt::ReturnByValue).isNull());

    RowDisplay* halden = row("proxy_halden");
    auto* fetch = halden->findChild<QPushButton*>("fetch0");
    EXPECT_FALSE(fetch->isHidden());
    EXPECT_TRUE(label("proxy_halden", "picture0")->isHidden());
    fetch->click();
    ASSERT_TRUE(waitUntil([&] { return !label("proxy_halden", "picture0")->isHidden(); }));
    EXPECT_TRUE(fetch->isHidden());
    EXPECT_TRUE(test::exists(pictures.file("Halden_Stagebox.png")));
    EXPECT_EQ(halden->images().front()->shownFile(),
              QString::fromStdString(pictures.file("Halden_Stagebox.png")));
}

TEST_F(PluginWindowTest, EngineToggleOnlySignals) {
    startEngine({firstFolder()});
    openWindow();
    int started = 0;
    int stopped = 0;
    QObject::connect(window.get(), &PluginWindow::startEngine, [&] { ++started; });
    QObject::connect(window.get(), &PluginWindow::stopEngine, [&] { ++stopped; });
    window->toggleEngine();
    EXPECT_EQ(started, 1);
    EXPECT_EQ(window->findChild<QPushButton*>("engineButton")->text(), "Stop Engine");
    window->toggleEngine();
    EXPECT_EQ(stopped, 1);
    EXPECT_EQ(window->findChild<QPushButton*>("engineButton")->text(), "Start Engine");
}

TEST_F(PluginWindowTest, TrayRoutineOpensTheWindowOnTheAttachedServer) {
    startEngine({firstFolder(), secondFolder()});
    showPluginsManager(window, *agent);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->rows().size(), 6u);
    EXPECT_EQ(pictureDirectories().front(),
              QString::fromStdString(appData.path()) + "/Corvane Technologies/velmor/pictures/");
}

// Renders the window with a row in each status; VELMOR_PLUGINS_SCREENSHOT names the PNG.
TEST_F(PluginWindowTest, Screenshot) {
    startEngine({firstFolder(), secondFolder()});
    solidPng(QColor(40, 90, 160))
        .save(QString::fromStdString(pictures.file("Tessel_Box.png")), "PNG");
    catalogue.serve("/plugins.json", catalogueText("proxy_wavenet"));
    openWindow();
    download("proxy_halden");
    window->show();
    QCoreApplication::processEvents();
    QPixmap shot = window->grab();
    EXPECT_EQ(shot.size(), QSize(800, 600));
    if (const char* path = std::getenv("VELMOR_PLUGINS_SCREENSHOT")) {
        EXPECT_TRUE(shot.save(path, "PNG"));
    }
}

}  // namespace
