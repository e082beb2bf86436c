#include "plugins/Catalogue.h"

#include <gtest/gtest.h>

#include <QString>
#include <QtGlobal>
#include <string>

#include "../json/StdoutCapture.h"

namespace {

using namespace vlm;
using vlm::test::StdoutCapture;

/// Collects what qDebug and friends write while it lives.
class MessageCapture {
public:
    MessageCapture() {
        text_().clear();
        previous_ = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&,
                                              const QString& message) { text_() += message; });
    }
    ~MessageCapture() { qInstallMessageHandler(previous_); }
    const QString& text() const { return text_(); }

private:
    static QString& text_() {
        static QString collected;
        return collected;
    }
    QtMessageHandler previous_;
};

std::string plugin(const std::string& name, int major, int minor, const std::string& extra = {}) {
    return R"({"Name":")" + name + R"(","URL":"127.0.0.1:1/files/","Description":"About )" + name +
           R"(","Contact":"dev@example.org","Certification":"release","Major":)" +
           std::to_string(major) + R"(,"Minor":)" + std::to_string(minor) + extra + "}";
}

CatalogueEntries read(const std::string& text, bool* ok = nullptr, std::string* out = nullptr) {
    CatalogueEntries entries;
    StdoutCapture capture;
    bool parsed = readCatalogue(text, entries);
    std::string printed = capture.text();
    if (ok)
        *ok = parsed;
    if (out)
        *out = printed;
    return entries;
}

LocalVersions local(std::initializer_list<std::pair<const std::string, LocalVersion>> list) {
    return LocalVersions(list);
}

TEST(Catalogue, StabilityWords) {
    EXPECT_EQ(stabilityOf("experimental"), 0);
    EXPECT_EQ(stabilityOf("beta"), 1);
    EXPECT_EQ(stabilityOf("release"), 2);
    EXPECT_EQ(stabilityOf("Beta"), -1);
    EXPECT_EQ(stabilityOf(""), -1);
    EXPECT_STREQ(stabilityWord(0), "experimental");
    EXPECT_STREQ(stabilityWord(1), "beta");
    EXPECT_STREQ(stabilityWord(2), "release");
    EXPECT_STREQ(stabilityWord(-1), "unknown");
    EXPECT_STREQ(stabilityWord(7), "unknown");
}

TEST(Catalogue, ReadsEveryMemberAndPrintsOneLinePerPlugin) {
    std::string printed;
    bool ok = false;
    auto entries =
        read(R"({"Plugins":[)" + plugin("proxy_tessel", 2, 3, R"(,"Windows":"proxy_tessel.dll")") +
                 R"(],"Images":[]})",
             &ok, &printed);
    ASSERT_TRUE(ok);
    ASSERT_EQ(entries.size(), 1u);
    const CatalogueEntry& entry = entries.at("proxy_tessel");
    EXPECT_EQ(entry.name, "proxy_tessel");
    EXPECT_EQ(entry.url, "127.0.0.1:1/files/");
    EXPECT_EQ(entry.description, "About proxy_tessel");
    EXPECT_EQ(entry.contact, "dev@example.org");
    EXPECT_TRUE(entry.hasWindowsFile);
    EXPECT_EQ(entry.windowsFile, "proxy_tessel.dll");
    EXPECT_EQ(entry.stability, 2);
    EXPECT_EQ(entry.major, 2);
    EXPECT_EQ(entry.minor, 3);
    EXPECT_EQ(printed, "<<<<PLUGIN>>>>> proxy_tessel - 127.0.0.1:1/files/ - About proxy_tessel\n");
}

TEST(Catalogue, AbsentWindowsMeansNoFileAndNoMessage) {
    std::string printed;
    auto entries = read(R"({"Plugins":[)" + plugin("disco_sap", 1, 0) + R"(],"Images":[]})",
                        nullptr, &printed);
    EXPECT_FALSE(entries.at("disco_sap").hasWindowsFile);
    EXPECT_EQ(printed.find("not found"), std::string::npos);
}

TEST(Catalogue, MissingRequiredMembersAreReportedAndReadEmpty) {
    std::string printed;
    bool ok = false;
    auto entries = read(R"({"Plugins":[{"Name":"bare"}],"Images":[]})", &ok, &printed);
    ASSERT_TRUE(ok);
    const CatalogueEntry& entry = entries.at("bare");
    EXPECT_EQ(entry.url, "");
    EXPECT_EQ(entry.major, 0);
    EXPECT_EQ(entry.stability, -1);
    for (const char* member : {"URL", "Description", "Contact", "Certification", "Major", "Minor"})
        EXPECT_NE(printed.find(std::string("rapidJson: member ") + member +
                               " not found; please fix it!\n"),
                  std::string::npos)
            << member;
}

TEST(Catalogue, UnknownCertificationIsUnknown) {
    auto entries = read(R"({"Plugins":[{"Name":"a","URL":"","Description":"","Contact":"",)"
                        R"("Certification":"Beta","Major":1,"Minor":0}],"Images":[]})");
    EXPECT_EQ(entries.at("a").stability, -1);
    EXPECT_STREQ(stabilityWord(entries.at("a").stability), "unknown");
}

TEST(Catalogue, ImageRecordsOnlyWhereNameEqualsProxy) {
    const std::string images =
        R"([{"Name":"proxy_tessel","Proxy":"proxy_tessel","Vendor":"Tessel","Product":"Box",)"
        R"("PNG_URL":"h/box.png","ICNS_URL":"h/box.icns"},)"
        R"({"Name":"Other","Proxy":"proxy_tessel","Vendor":"X","Product":"Y",)"
        R"("PNG_URL":"h/y.png","ICNS_URL":"h/y.icns"}])";
    auto entries =
        read(R"({"Plugins":[)" + plugin("proxy_tessel", 1, 0) + R"(],"Images":)" + images + "}");
    const auto& list = entries.at("proxy_tessel").images;
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].name, "proxy_tessel");
    EXPECT_EQ(list[0].vendor, "Tessel");
    EXPECT_EQ(list[0].product, "Box");
    EXPECT_EQ(list[0].pngUrl, "h/box.png");
    EXPECT_EQ(list[0].icnsUrl, "h/box.icns");
    EXPECT_EQ(pictureName(list[0]), "Tessel_Box");
}

TEST(Catalogue, StatusRule) {
    auto entries = read(R"({"Plugins":[)" + plugin("newer", 2, 0) + "," + plugin("same", 2, 0) +
                        "," + plugin("older", 1, 5) + "," + plugin("minor", 2, 1) + "," +
                        plugin("absent", 1, 0) + R"(],"Images":[]})");
    applyStatus(entries, local({{"newer", {1, 9}},
                                {"same", {2, 0}},
                                {"older", {2, 0}},
                                {"minor", {2, 0}},
                                {"mystery", {3, 1}}}));
    EXPECT_TRUE(entries.at("newer").installed);
    EXPECT_TRUE(entries.at("newer").outdated);
    EXPECT_TRUE(entries.at("same").installed);
    EXPECT_FALSE(entries.at("same").outdated);
    // A newer local plug-in is not flagged.
    EXPECT_TRUE(entries.at("older").installed);
    EXPECT_FALSE(entries.at("older").outdated);
    EXPECT_TRUE(entries.at("minor").outdated);
    EXPECT_FALSE(entries.at("absent").installed);

    const CatalogueEntry& mystery = entries.at("mystery");
    EXPECT_EQ(mystery.description, "local unknown plugin");
    EXPECT_EQ(mystery.url, "");
    EXPECT_EQ(mystery.contact, "");
    EXPECT_FALSE(mystery.hasWindowsFile);
    EXPECT_EQ(mystery.stability, -1);
    EXPECT_EQ(mystery.major, 3);
    EXPECT_EQ(mystery.minor, 1);
    EXPECT_TRUE(mystery.installed);
    EXPECT_FALSE(mystery.outdated);
    EXPECT_EQ(rowStatus(mystery, false), RowStatus::UpToDate);
}

TEST(Catalogue, RowStatusPrecedence) {
    CatalogueEntry entry;
    entry.installed = true;
    entry.outdated = true;
    EXPECT_EQ(rowStatus(entry, false), RowStatus::Outdated);  // even with no file for us
    entry.outdated = false;
    EXPECT_EQ(rowStatus(entry, true), RowStatus::UpToDate);
    entry.installed = false;
    EXPECT_EQ(rowStatus(entry, true), RowStatus::RestartNeeded);
    EXPECT_EQ(rowStatus(entry, false), RowStatus::NotAvailable);
    entry.hasWindowsFile = true;
    EXPECT_EQ(rowStatus(entry, false), RowStatus::Download);
}

TEST(Catalogue, ReadsTheServerConfiguration) {
    json::Document document;
    ASSERT_TRUE(json::parseString(
        document, R"({"Config":{"Plugins":[{"Name":"proxy_tessel","Major":1,"Minor":9},7,)"
                  R"({"Name":"disco","Major":2}],"PluginDirectory":["/a","/b"]}})"));
    LocalVersions versions;
    std::optional<std::vector<std::string>> folders;
    StdoutCapture capture;
    readServerConfig(document, versions, folders);
    capture.text();
    ASSERT_EQ(versions.size(), 2u);
    EXPECT_EQ(versions.at("proxy_tessel").major, 1);
    EXPECT_EQ(versions.at("proxy_tessel").minor, 9);
    EXPECT_EQ(versions.at("disco").minor, 0);
    ASSERT_TRUE(folders);
    EXPECT_EQ(*folders, (std::vector<std::string>{"/a", "/b"}));

    json::Document empty;
    ASSERT_TRUE(json::parseString(empty, R"({"Config":{"PluginDirectory":[]}})"));
    std::optional<std::vector<std::string>> none;
    readServerConfig(empty, versions, none);
    EXPECT_FALSE(none);
}

TEST(Catalogue, RefusesFileNamesThatLeaveTheFolder) {
    for (const char* bad :
         {"../evil.dll", "..", "a/b.dll", "a\\b.dll", "C:evil.dll", "C:\\Windows\\evil.dll",
          "/etc/evil.so", "\\\\server\\share.dll", "evil..dll", ""})
        EXPECT_FALSE(isPlainFileName(bad)) << bad;
    EXPECT_TRUE(isPlainFileName("proxy_tessel.dll"));
    EXPECT_TRUE(isPlainFileName("proxy tessel-2.0.dll"));

    auto entries =
        read(R"({"Plugins":[)" + plugin("proxy_evil", 1, 0, R"(,"Windows":"..\\..\\evil.dll")") +
             R"(],"Images":[{"Name":"p","Proxy":"p","Vendor":"..","Product":"x",)"
             R"("PNG_URL":"","ICNS_URL":""}]})");
    EXPECT_FALSE(entries.at("proxy_evil").hasWindowsFile);
    EXPECT_EQ(entries.at("proxy_evil").windowsFile, "");
    EXPECT_EQ(rowStatus(entries.at("proxy_evil"), false), RowStatus::NotAvailable);
    ImageRecord record{"p", "..", "", "", ""};
    EXPECT_EQ(pictureName(record), "");
    record.vendor = "a/";
    EXPECT_EQ(pictureName(record), "");
}

TEST(Catalogue, NotJsonIsReportedWithTheParserErrorAndOffset) {
    MessageCapture messages;
    bool ok = true;
    auto entries = read("<html>404</html>", &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(messages.text().toStdString(),
              "Unable to parse Json document: Invalid value. -> corrupted (0)\n");
}

TEST(Catalogue, TruncatedDocumentIsRefused) {
    MessageCapture messages;
    bool ok = true;
    const std::string whole = R"({"Plugins":[)" + plugin("a", 1, 0) + R"(],"Images":[]})";
    read(whole.substr(0, whole.size() / 2), &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(messages.text().startsWith("Unable to parse Json document: "));
}

TEST(Catalogue, DeepNestingIsRefusedWithoutCrashing) {
    MessageCapture messages;
    bool ok = true;
    read(std::string(100000, '[') + std::string(100000, ']'), &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(messages.text().contains("corrupted"));
}

TEST(Catalogue, NulBytesAreNotJson) {
    MessageCapture messages;
    bool ok = true;
    std::string inside = R"({"Plugins":[{"Name":"a)";
    inside += '\0';
    inside += R"(b"}],"Images":[]})";
    read(inside, &ok);
    EXPECT_FALSE(ok);

    std::string after = R"({"Plugins":[],"Images":[]})";
    after += '\0';
    after += "garbage";
    read(after, &ok);
    EXPECT_FALSE(ok);
}

TEST(Catalogue, WrongTypesAreReadAsEmpty) {
    bool ok = false;
    std::string printed;
    auto entries = read(R"({"Plugins":{"Name":"x"},"Images":7})", &ok, &printed);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(entries.empty());

    entries = read(R"({"Plugins":[3,"text",{"Name":5,"URL":[],"Description":{},"Contact":null,)"
                   R"("Windows":7,"Certification":2,"Major":"2","Minor":1.5}],"Images":[1]})",
                   &ok, &printed);
    EXPECT_TRUE(ok);
    ASSERT_EQ(entries.size(), 1u);
    const CatalogueEntry& entry = entries.begin()->second;
    EXPECT_EQ(entry.name, "");
    EXPECT_EQ(entry.major, 0);
    EXPECT_EQ(entry.minor, 0);
    EXPECT_FALSE(entry.hasWindowsFile);
    EXPECT_NE(printed.find("not an object [Name]\n"), std::string::npos);

    entries = read(R"([1,2,3])", &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(entries.empty());
}

}  // namespace
