// Renders the plug-in manager for the documentation: a catalogue on loopback with a row in each
// status, device pictures, one download done, in the program's font and theme.
// Usage: plugin_manager_shot OUTPUT.png   (VELMOR_THEME=dark|light chooses the theme)

#include <QApplication>
#include <QDir>
#include <QPainter>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTimer>

#include "LoopbackHttpServer.h"
#include "plugins/PluginWindow.h"
#include "plugins/RowDisplay.h"
#include "theme/QCVTheme.h"

namespace {

// A stand-in device picture: a dark box with a light front panel.
void drawDevice(const QString& path, const QColor& colour) {
    QImage image(120, 50, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(colour);
    painter.drawRoundedRect(QRectF(8, 12, 104, 28), 4, 4);
    painter.setBrush(QColor(230, 230, 230));
    for (int i = 0; i < 6; ++i)
        painter.drawEllipse(QPointF(22 + i * 15, 26), 4, 4);
    image.save(path, "PNG");
}

}  // namespace

int main(int argc, char* argv[]) {
    QApplication application(argc, argv);
    if (argc != 2)
        return 2;
    QFont::insertSubstitution("Calibri", "Carlito");
    QFont font("Calibri", 10, -1, false);
    font.setStyleHint(QFont::Monospace, QFont::PreferDefault);
    QApplication::setFont(font);
    vlm::QCVTheme::instance().applyTheme();

    QTemporaryDir dir;
    QDir(dir.path()).mkpath("plugins");
    QDir(dir.path()).mkpath("pictures");
    drawDevice(dir.filePath("pictures/Tessel_Box.png"), QColor(40, 70, 120));
    drawDevice(dir.filePath("pictures/Halden_Stagebox.png"), QColor(120, 40, 40));
    vlm::test::LoopbackHttpServer server;
    const std::string host = server.host();
    auto plugin = [&](const char* name, const char* description, const char* certification,
                      int major, const char* file) {
        return std::string(R"({"Name":")") + name + R"(","URL":")" + host +
               R"(/files/","Description":")" + description + R"(","Contact":"",)" +
               R"("Certification":")" + certification + R"(","Major":)" + std::to_string(major) +
               R"(,"Minor":0)" + (*file ? std::string(R"(,"Windows":")") + file + "\"" : "") + "}";
    };
    server.serve(
        "/plugins.json",
        "{\"Plugins\":[" +
            plugin("proxy_tessel", "Tessel stage boxes", "release", 2, "proxy_tessel.dll") + "," +
            plugin("proxy_native", "Native generic proxy", "beta", 1, "n.dll") + "," +
            plugin("proxy_halden", "Halden converters", "experimental", 1, "h.dll") + "," +
            plugin("proxy_wavenet", "Wavenet interfaces", "release", 1, "w.dll") + "," +
            plugin("disco_sap", "SAP stream discovery", "unreleased", 1, "") +
            R"(],"Images":[{"Name":"proxy_tessel","Proxy":"proxy_tessel",)"
            R"("Vendor":"Tessel","Product":"Box","PNG_URL":"","ICNS_URL":""},)"
            R"({"Name":"proxy_halden","Proxy":"proxy_halden","Vendor":"Halden",)"
            R"("Product":"Stagebox","PNG_URL":"","ICNS_URL":""}]})");
    server.serve("/files/h.dll", "plug-in");
    qputenv("VELMOR_CATALOGUE_HOST", host.c_str());

    const std::string loaded =
        R"({"Config":{"Plugins":[{"Name":"proxy_tessel","Major":1,"Minor":9},)"
        R"({"Name":"proxy_native","Major":1,"Minor":0},{"Name":"proxy_lynx","Major":3,"Minor":1}],)"
        R"("PluginDirectory":[")" +
        dir.filePath("plugins").toStdString() + "\"]}}";
    vlm::json::Document configuration;
    vlm::json::parseString(configuration, loaded.c_str());
    vlm::PluginWindow window;
    window.updateModel(configuration);
    window.setUp({dir.filePath("pictures")});
    window.show();
    for (vlm::RowDisplay* row : window.rows())
        if (row->entry().name == "proxy_halden")
            row->findChild<QPushButton*>("downloadButton")->click();
    QTimer::singleShot(1500, [&] {
        window.findChild<QPushButton*>("updateButton")->click();
        QTimer::singleShot(300, [&] {
            application.exit(window.grab().save(QString::fromLocal8Bit(argv[1])) ? 0 : 1);
        });
    });
    return application.exec();
}
