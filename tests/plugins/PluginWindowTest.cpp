#include "plugins/PluginWindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QBuffer>
#include <QDir>
#include <QFontInfo>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <atomic>
#include <filesystem>
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

bool waitUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

std::string png(QColor colour) {
    QImage image(40, 30, QImage::Format_RGB32);
    image.fill(colour);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes.toStdString();
}

std::string plugin(const std::string& url, const std::string& name, const char* certification,
                   int major, int minor, const std::string& file) {
    return R"({"Name":")" + name + R"(","URL":")" + url + R"(/files/","Description":"The )" + name +
           R"( plug-in","Contact":"dev@example.org")" +
           (file.empty() ? "" : R"(,"Windows":")" + file + "\"") + R"(,"Certification":")" +
           certification + R"(","Major":)" + std::to_string(major) + R"(,"Minor":)" +
           std::to_string(minor) + "}";
}

/// \brief The engine stand-in with plug-ins on disk, a catalogue server, and an agent of a
/// user without APPDATA (an ordinary Linux session) attached to the engine.
class PluginWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The program's font: Calibri, here its metric twin.
        QFont::insertSubstitution("Calibri", "Carlito");
        QApplication::setFont(QFont("Calibri", 10));
        unsetenv("APPDATA");
        setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", home.path().c_str(), 1);
        setenv("VELMOR_CATALOGUE_HOST", catalogue.host().c_str(), 1);
        for (const char* folder : {"first", "second"})
            std::filesystem::create_directories(root.file(folder));
        test::writeFile(root.file("first/proxy_tessel_1.9.so"), "");
        test::writeFile(root.file("first/proxy_native_2.0.so"), "");
        test::writeFile(root.file("second/proxy_local_3.1.so"), "");
        const std::string url = catalogue.host();
        catalogue.serve(
            "/plugins.json",
            R"({"Plugins":[)" + plugin(url, "proxy_tessel", "release", 2, 0, "proxy_tessel.dll") +
                "," + plugin(url, "proxy_native", "beta", 1, 5, "proxy_native.dll") + "," +
                plugin(url, "proxy_halden", "experimental", 1, 0, "proxy_halden.dll") + "," +
                plugin(url, "proxy_wavenet", "release", 1, 0, "proxy_wavenet.dll") + "," +
                plugin(url, "disco_sap", "Beta", 1, 0, "") + "," +
                plugin(url, "proxy_evil", "release", 1, 0, "../../evil.dll") +
                R"(],"Images":[{"Name":"proxy_halden","Proxy":"proxy_halden","Vendor":"Halden",)"
                R"("Product":"Stagebox","PNG_URL":")" +
                url +
                R"(/pictures/halden.png","ICNS_URL":"none"},{"Name":"proxy_tessel",)"
                R"("Proxy":"proxy_tessel","Vendor":"Tessel","Product":"Box","PNG_URL":"none",)"
                R"("ICNS_URL":"none"}]})");
        catalogue.serve("/files/proxy_halden.dll", "halden plug-in bytes");
        catalogue.serve("/pictures/halden.png", png(Qt::blue));
        config.load();
        agent = std::make_unique<Agent>(config);
        engine = std::make_unique<kelvane::EngineServer>(
            std::vector<std::string>{root.file("missing"), root.file("first"), root.file("second")},
            "", false);
        std::string error;
        ASSERT_TRUE(engine->start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
        agent->attachedServer = "127.0.0.1:" + std::to_string(engine->port());
    }
    void TearDown() override { unsetenv("VELMOR_CATALOGUE_HOST"); }

    RowDisplay* row(const std::string& name) const {
        for (RowDisplay* candidate : window->rows())
            if (candidate->entry().name == name)
                return candidate;
        ADD_FAILURE() << "no row " << name;
        return window->rows().front();
    }
    QString text(const std::string& rowName, const char* cell) const {
        auto* label = row(rowName)->findChild<QLabel*>(cell);
        return label->isHidden() ? "(hidden)" : label->text() + " " + label->styleSheet();
    }
    QPushButton* button(const std::string& rowName, const char* name = "downloadButton") const {
        return row(rowName)->findChild<QPushButton*>(name);
    }
    void update() { window->findChild<QPushButton*>("updateButton")->click(); }

    // One home per process, as the picture folders are one per process.
    static inline test::TempDir home;
    test::TempDir root;
    LoopbackHttpServer catalogue;
    AppConfig config;
    std::unique_ptr<Agent> agent;
    std::unique_ptr<kelvane::EngineServer> engine;
    std::unique_ptr<PluginWindow> window;
};

// Every control and cell where the design puts it, with its single black lines, and every
// text within its cell in the designed face ("experimental" and "proxy_wavenet" once were not).
TEST_F(PluginWindowTest, GeometryTable) {
    ASSERT_EQ(QFontInfo(QApplication::font()).family(), "Carlito");
    showPluginsManager(window, *agent);
    EXPECT_EQ(window->windowTitle() + " " + QString::number(window->width()) + "x" +
                  QString::number(window->height()),
              "Plugin Manager 800x600");
    QWidget* w = window.get();
    auto at = [w](QWidget* widget) { return QRect(widget->mapTo(w, QPoint()), widget->size()); };
    auto find = [w](const char* name) { return w->findChild<QWidget*>(name); };
    EXPECT_EQ(at(find("updateButton")), QRect(30, 20, 150, 30));
    EXPECT_EQ(at(find("engineButton")), QRect(170, 20, 150, 30));
    EXPECT_TRUE(find("engineButton")->isHidden());
    EXPECT_EQ(at(find("connectionLabel")), QRect(660, 20, 120, 30));
    struct Cell {
        const char* name;
        QRect rect;
        const char* borders;  // top, bottom, left, right
    } headers[] = {{"header:PLUG-INS", {30, 80, 530, 30}, "1011"},
                   {"header:Icons", {560, 80, 220, 60}, "1001"},
                   {"header:Name", {30, 110, 120, 30}, "1011"},
                   {"header:Description", {150, 110, 200, 30}, "1001"},
                   {"header:Stability", {350, 110, 90, 30}, "1001"},
                   {"header:Installed", {440, 110, 120, 30}, "1001"}};
    auto borders = [](QWidget* widget) {
        std::string flags;
        for (const char* side : {"top", "bottom", "left", "right"})
            flags += widget->styleSheet().contains(QString("border-%1-width: 1px;").arg(side))
                         ? '1'
                         : '0';
        return flags;
    };
    for (const Cell& cell : headers) {
        EXPECT_EQ(at(find(cell.name)), cell.rect) << cell.name;
        EXPECT_EQ(borders(find(cell.name)), cell.borders) << cell.name;
    }
    const auto& rows = window->rows();
    ASSERT_EQ(rows.size(), 7u);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const int y = 140 + 50 * static_cast<int>(i);
        const char b = i + 1 == rows.size() ? '1' : '0';  // the last row closes the table
        const Cell cells[] = {{"name", {30, y, 120, 50}, "0?11"},
                              {"description", {150, y, 200, 50}, "0?01"},
                              {"stability", {350, y, 90, 50}, "0?11"}};
        for (Cell cell : cells) {
            std::string expected = cell.borders;
            expected[1] = b;
            EXPECT_EQ(at(rows[i]->findChild<QLabel*>(cell.name)), cell.rect) << cell.name << i;
            EXPECT_EQ(borders(rows[i]->findChild<QLabel*>(cell.name)), expected) << cell.name << i;
        }
        EXPECT_EQ(at(rows[i]->findChild<QLabel*>("status")), QRect(440, y, 120, 50));
        EXPECT_EQ(rows[i]->findChild<QLabel*>("name")->alignment() & Qt::AlignHCenter, 0);
        EXPECT_TRUE(rows[i]->findChild<QLabel*>("stability")->alignment() & Qt::AlignHCenter);
    }
    EXPECT_EQ(at(button("proxy_halden", "fetch0")), QRect(560, 140 + 2 * 50, 120, 50));
    EXPECT_EQ(find("rowArea")->height(), 60 + 7 * 50 + 30);

    window->show();
    for (auto* label : window->findChildren<QLabel*>()) {
        if (label->isHidden() || label->text().isEmpty())
            continue;
        const QRect room = label->contentsRect();
        const QRect need = label->fontMetrics().boundingRect(
            room, label->alignment() | Qt::TextWordWrap, label->text());
        EXPECT_TRUE(room.width() >= need.width() && room.height() >= need.height())
            << label->text().toStdString() << " needs " << need.width() << "x" << need.height()
            << " in " << room.width() << "x" << room.height();
    }
}

// Statuses, pictures under the configuration's folder (no APPDATA), and downloads: into every
// writable plug-in folder once, whole or not at all, and "RESTART VELMOR" only for a file
// that arrived.
TEST_F(PluginWindowTest, DownloadScenario) {
    const std::string pictures = home.file("Corvane Technologies/velmor/pictures/");
    ASSERT_EQ(pictureDirectories(config).front().toStdString(), pictures);
    test::writeFile(pictures + "Tessel_Box.png", png(Qt::green));
    showPluginsManager(window, *agent);
    EXPECT_EQ(window->findChild<QLabel*>("connectionLabel")->text(), "CONNECTED");
    EXPECT_EQ(text("proxy_tessel", "status"), "OUTDATED QLabel { background-color: red; }");
    EXPECT_EQ(text("proxy_native", "status"),
              "UP TO DATE QLabel { background-color: lightgreen; }");
    EXPECT_EQ(text("proxy_local", "description").left(21), "local unknown plugin ");
    EXPECT_TRUE(text("disco_sap", "status").startsWith("N/A FOR YOUR\nSYSTEM "));
    EXPECT_TRUE(button("proxy_evil")->isHidden());
    EXPECT_EQ(text("proxy_halden", "status"), "(hidden)");

    EXPECT_FALSE(row("proxy_tessel")->findChild<QLabel*>("picture0")->isHidden());
    button("proxy_halden", "fetch0")->click();
    ASSERT_TRUE(waitUntil(
        [&] { return !row("proxy_halden")->findChild<QLabel*>("picture0")->isHidden(); }));
    EXPECT_TRUE(test::exists(pictures + "Halden_Stagebox.png"));

    button("proxy_halden")->click();
    button("proxy_halden")->click();  // a second click starts nothing
    ASSERT_TRUE(waitUntil([&] { return row("proxy_halden")->isDownloaded(); }));
    for (const char* folder : {"first", "second"})
        EXPECT_EQ(test::readFile(root.file(folder) + "/proxy_halden.dll"), "halden plug-in bytes");
    int fetches = 0;
    for (const std::string& request : catalogue.requests())
        fetches += request.rfind("GET /files/proxy_halden.dll ", 0) == 0;
    EXPECT_EQ(fetches, 2);
    EXPECT_EQ(text("proxy_halden", "status"), "RESTART VELMOR QLabel { background-color: red; }");
    EXPECT_EQ(text("proxy_halden", "progress"), "(hidden)");  // the missing folder: no error
    update();
    EXPECT_EQ(text("proxy_halden", "status"), "RESTART VELMOR QLabel { background-color: red; }");

    // Cut off half-way: no plug-in file, nothing half-written left, the row as it was.
    catalogue.handle("/files/proxy_wavenet.dll", [](LoopbackHttpServer::Socket& s, auto&) {
        LoopbackHttpServer::writeAll(s, "HTTP/1.0 200 OK\r\n\r\n" + std::string(5000, 'w'));
        s.set_option(boost::asio::socket_base::linger(true, 0));
        s.close();
    });
    // The row's end: the button back, or an error text.
    auto download = [&](const std::string& name) {
        button(name)->click();
        return waitUntil([&] {
            return !button(name)->isHidden() || text(name, "progress").startsWith("File Open");
        });
    };
    ASSERT_TRUE(download("proxy_wavenet"));
    for (const char* folder : {"first", "second"})
        EXPECT_EQ(QDir(QString::fromStdString(root.file(folder))).entryList({"*wavenet*"}),
                  QStringList());
    update();
    EXPECT_FALSE(button("proxy_wavenet")->isHidden());

    // No folder to write into: the error stays readable, and the row is not taken as done.
    json::Document unwritable;
    ASSERT_TRUE(
        json::parseString(unwritable, R"({"Config":{"PluginDirectory":["/nonexistent/a"]}})"));
    window->updateModel(unwritable);
    ASSERT_TRUE(download("proxy_wavenet"));
    EXPECT_EQ(text("proxy_wavenet", "progress").left(16), "File Open\nError ");
    update();
    EXPECT_FALSE(button("proxy_wavenet")->isHidden());

    // A window closed during a download: the transfer ends in the background, nothing breaks.
    std::atomic<bool> release{false};
    catalogue.handle("/files/proxy_wavenet.dll", [&](LoopbackHttpServer::Socket& s, auto&) {
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        LoopbackHttpServer::writeAll(s, LoopbackHttpServer::response(200, "late"));
    });
    showPluginsManager(window, *agent);
    button("proxy_wavenet")->click();
    window.reset();
    release = true;
    EXPECT_TRUE(waitUntil([&] { return test::exists(root.file("second/proxy_wavenet.dll")); }));
}

}  // namespace
