#include "plugins/PluginWindow.h"

#include <gtest/gtest.h>

#include <QtTest>
#include <QtWidgets>
#include <filesystem>

#include "AgentTestSupport.h"
#include "EngineServer.h"
#include "LoopbackHttpServer.h"
#include "plugins/RowDisplay.h"

namespace {

using namespace vlm;
using test::LoopbackHttpServer;

/// \brief The engine stand-in with plug-ins on disk, a catalogue server, an agent without APPDATA.
class PluginWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        QFont::insertSubstitution("Calibri", "Carlito");  // the program's font
        QApplication::setFont(QFont("Calibri", 10));
        unsetenv("APPDATA");
        setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
        setenv("VELMOR_CATALOGUE_HOST", catalogue.host().c_str(), 1);
        for (const char* file : {"first/proxy_tessel_1.9.so", "first/proxy_native_2.0.so",
                                 "first/proxy_lynx_2.5.so", "second/proxy_local_3.1.so"}) {
            std::filesystem::create_directories(root.file(file).substr(0, root.path().size() + 7));
            test::writeFile(root.file(file), "");
        }
        QString text = R"({"Plugins": [
{"Name": "proxy_tessel", "Certification": "release", "Major": 2},
{"Name": "proxy_native", "Certification": "beta", "Major": 1, "Windows": "proxy_native.dll"},
{"Name": "proxy_lynx", "Certification": "experimental", "Major": 2, "Windows": "lynx.dll"},
{"Name": "proxy_halden", "Certification": "experimental", "Windows": "proxy_halden.dll"},
{"Name": "proxy_wavenet", "Certification": "release", "Windows": "proxy_wavenet.dll"},
{"Name": "disco_sap", "Certification": "Beta"}], "Images": [
{"Name": "proxy_halden", "Proxy": "proxy_halden", "Vendor": "Halden", "Product": "Stagebox",
 "PNG_URL": "HOST/halden.png"}, {"Name": "proxy_tessel", "Proxy": "proxy_tessel",
 "Vendor": "Tessel", "Product": "Box"}]})";
        text.replace(
            "\"Certification\"",
            R"("URL": "HOST/files/", "Description": "A plug-in", "Minor": 5, "Certification")");
        catalogueText = text.replace("HOST", catalogue.host().c_str()).toStdString();
        catalogue.serve("/plugins.json", catalogueText);
        catalogue.serve("/files/proxy_halden.dll", "halden plug-in bytes");
        config.load();
        agent = std::make_unique<Agent>(config);
        engine = std::make_unique<kelvane::EngineServer>(
            std::vector<std::string>{root.file("missing"), root.file("first"), root.file("second")},
            "", false);
        std::string error;
        ASSERT_TRUE(engine->start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
        agent->attachedServer = "127.0.0.1:" + std::to_string(engine->port());
        showPluginsManager(window, *agent);  // as the tray opens it
    }

    RowDisplay* row(const std::string& name) const {
        return window->findChild<RowDisplay*>(QString::fromStdString(name));
    }
    QString text(const std::string& rowName, const char* cell) const {
        auto* label = row(rowName)->findChild<QLabel*>(cell);
        return label->isHidden() ? "(hidden)" : label->text() + " " + label->styleSheet();
    }
    QPushButton* button(const std::string& rowName, const char* name = "downloadButton") const {
        return row(rowName)->findChild<QPushButton*>(name);
    }
    QLabel* connection() const { return window->findChild<QLabel*>("connectionLabel"); }
    void update() { window->findChild<QPushButton*>("updateButton")->click(); }

    static inline test::TempDir home;  // one per process, as the picture folders are
    test::TempDir root;
    LoopbackHttpServer catalogue;
    std::string catalogueText;
    AppConfig config;
    std::unique_ptr<Agent> agent;
    std::unique_ptr<kelvane::EngineServer> engine;
    std::unique_ptr<PluginWindow> window;
};

// Every control and cell where the design puts it, with its single black lines (top, bottom,
// left, right), and every text within its cell in the designed face.
TEST_F(PluginWindowTest, GeometryTable) {
    window->show();
    QStringList cells{window->windowTitle()};  // then x y width height, lines, "h" when hidden
    auto cell = [&](QWidget* widget) {
        const QRect r(widget->mapTo(window.get(), QPoint()), widget->size());
        cells << QString("%1 %2 %3 %4 ").arg(r.x()).arg(r.y()).arg(r.width()).arg(r.height());
        for (const char* side : {"top", "bottom", "left", "right"})
            cells.last() +=
                widget->styleSheet().contains(QString("%1-width: 1px").arg(side)) ? side[0] : '-';
        cells.last() += widget->isHidden() ? "h" : "";
    };
    cell(window.get());
    for (const char* name :
         {"updateButton", "engineButton", "connectionLabel", "header:PLUG-INS", "header:Icons",
          "header:Name", "header:Description", "header:Stability", "header:Installed", "rowArea"})
        cell(window->findChild<QWidget*>(name));
    for (const char* name : {"name", "description", "stability", "status"})
        for (RowDisplay* r : {window->rows().front(), window->rows().back()})
            cell(r->findChild<QLabel*>(name));
    cell(button("proxy_halden", "fetch0"));
    EXPECT_EQ(cells.join("|").toStdString(),
              "Plugin Manager|0 0 800 600 ----|30 20 150 30 ----|170 20 150 30 ----h|"
              "660 20 120 30 ----|30 80 530 30 t-lr|560 80 220 60 t--r|30 110 120 30 t-lr|"
              "150 110 200 30 t--r|350 110 90 30 t--r|440 110 120 30 t--r|0 80 800 440 ----|"
              "30 140 120 50 --lr|30 440 120 50 -blr|150 140 200 50 ---r|150 440 200 50 -b-r|"
              "350 140 90 50 --lr|350 440 90 50 -blr|440 140 120 50 ---r|440 440 120 50 ----h|"
              "560 190 120 50 ----");
    for (auto* label : window->findChildren<QLabel*>())
        EXPECT_TRUE(label->contentsRect().contains(label->fontMetrics().boundingRect(
            label->contentsRect(), label->alignment() | Qt::TextWordWrap, label->text())))
            << label->text().toStdString();
}

// Statuses, pictures under the configuration's folder (no APPDATA), and downloads: into every
// writable plug-in folder once, whole or not at all, "RESTART VELMOR" only for a file that
// arrived, and a window closed during a download.
TEST_F(PluginWindowTest, DownloadScenario) {
    QStringList shown;  // the catalogue's versions against the loaded ones; the installed win
    for (RowDisplay* r : window->rows()) {
        auto* status = r->findChild<QLabel*>("status");
        shown << r->objectName() + " " + r->findChild<QLabel*>("stability")->text() + " " +
                     (status->isHidden() ? button(r->entry().name)->text() : status->text()) +
                     status->styleSheet().section("background-color: ", 1).section(';', 0, 0);
    }
    EXPECT_EQ(shown.join("|"),
              "disco_sap unknown N/A FOR YOUR\nSYSTEM|proxy_halden experimental "
              "DOWNLOAD\nNOW|proxy_local unknown UP TO DATElightgreen|proxy_lynx "
              "experimental UP TO DATElightgreen|proxy_native beta UP TO "
              "DATElightgreen|proxy_tessel release OUTDATEDred|proxy_wavenet "
              "release DOWNLOAD\nNOW");
    EXPECT_TRUE(text("proxy_local", "description").startsWith("local unknown plugin "));

    const std::string pictures = home.file("Corvane Technologies/velmor/pictures/");
    ASSERT_EQ(pictureDirectories(config).front().toStdString(), pictures);
    QImage image(40, 30, QImage::Format_RGB32);
    image.fill(Qt::blue);
    QBuffer png;
    image.save(&png, "PNG");
    catalogue.serve("/halden.png", png.data().toStdString());
    button("proxy_halden", "fetch0")->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return text("proxy_halden", "picture0") != "(hidden)"; }));
    EXPECT_EQ(test::readFile(pictures + "Halden_Stagebox.png"), png.data().toStdString());

    button("proxy_halden")->click();
    button("proxy_halden")->click();  // a second click starts nothing
    ASSERT_TRUE(QTest::qWaitFor([&] { return row("proxy_halden")->isDownloaded(); }));
    for (const char* file : {"first/proxy_halden.dll", "second/proxy_halden.dll"})
        EXPECT_EQ(test::readFile(root.file(file)), "halden plug-in bytes");
    EXPECT_EQ(catalogue.requests().size(), 4u);               // catalogue, picture, two files
    EXPECT_EQ(text("proxy_halden", "progress"), "(hidden)");  // the missing folder: no error
    update();
    EXPECT_EQ(text("proxy_halden", "status"), "RESTART VELMOR QLabel { background-color: red; }");

    // Cut off half-way: no plug-in file, nothing half-written left, the row as it was; then no
    // folder writable: said so.
    catalogue.handle("/files/proxy_wavenet.dll", [](LoopbackHttpServer::Socket& s, auto&) {
        LoopbackHttpServer::writeAll(s, "HTTP/1.0 200 OK\r\n\r\n" + std::string(5000, 'w'));
        s.set_option(boost::asio::socket_base::linger(true, 0));
        s.close();
    });
    auto download = [&] {  // until the button is back, or an error text shows
        button("proxy_wavenet")->click();
        return QTest::qWaitFor([&] {
            return !button("proxy_wavenet")->isHidden() ||
                   text("proxy_wavenet", "progress").startsWith("File Open\nError ");
        });
    };
    ASSERT_TRUE(download());
    for (const char* folder : {"first", "second"})
        EXPECT_TRUE(QDir(root.file(folder).c_str()).entryList({"*wavenet*"}).isEmpty()) << folder;
    json::Document unwritable;
    ASSERT_TRUE(
        json::parseString(unwritable, R"({"Config":{"PluginDirectory":["/nonexistent"]}})"));
    window->updateModel(unwritable);
    ASSERT_TRUE(download());
    EXPECT_TRUE(text("proxy_wavenet", "progress").startsWith("File Open\nError "));
    catalogue.handle("/plugins.json", nullptr);  // the catalogue gone: the rows stay
    update();
    EXPECT_EQ(connection()->text() + " " + connection()->styleSheet(),
              "TRYING TO CONNECT... QLabel { background-color: orange; }");
    EXPECT_EQ(window->rows().size(), 7u);
    catalogue.serve("/plugins.json", catalogueText);
    update();
    EXPECT_EQ(connection()->text(), "CONNECTED");
    EXPECT_FALSE(button("proxy_wavenet")->isHidden());

    std::mutex stall;  // the answer waits for the window to close
    stall.lock();
    catalogue.handle("/files/proxy_wavenet.dll", [&](LoopbackHttpServer::Socket& s, auto&) {
        std::lock_guard<std::mutex> released(stall);
        LoopbackHttpServer::writeAll(s, LoopbackHttpServer::response(200, "late"));
    });
    showPluginsManager(window, *agent);
    button("proxy_wavenet")->click();
    window.reset();
    stall.unlock();
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return test::exists(root.file("second/proxy_wavenet.dll")); }));
}

}  // namespace
