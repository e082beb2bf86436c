#include "plugins/Catalogue.h"

#include <gtest/gtest.h>

namespace {

using namespace vlm;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::string plugin(const std::string& name, const std::string& extra = {}) {
    return R"({"Name":")" + name + R"(","URL":"h:1/files/","Description":"About )" + name +
           R"(","Contact":"dev@example.org","Certification":"release","Major":2,"Minor":3)" +
           extra + "}";
}

struct Read {
    bool ok;
    CatalogueEntries entries;
    std::string printed;  // standard output: the plug-in lines and the log
    std::string debug;    // Qt's debug messages
};
Read read(const std::string& text) {
    Read result;
    CaptureStdout();
    CaptureStderr();
    result.ok = readCatalogue(text, result.entries);
    result.debug = GetCapturedStderr();
    result.printed = GetCapturedStdout();
    return result;
}

// Every member as read, one line per plug-in printed, the optional "Windows", the required
// members' message, pictures only where "Name" is "Proxy", and file names that stay in the
// folder.
TEST(Catalogue, MemberRules) {
    const std::string images =
        R"([{"Name":"p","Proxy":"p","Vendor":"Tessel","Product":"Box","PNG_URL":"h/box.png",)"
        R"("ICNS_URL":"h/box.icns"},{"Name":"Other","Proxy":"p","Vendor":"X","Product":"Y",)"
        R"("PNG_URL":"","ICNS_URL":""},{"Name":"q","Proxy":"q","Vendor":"..","Product":"/x",)"
        R"("PNG_URL":"","ICNS_URL":""}])";
    Read r = read(R"({"Plugins":[)" + plugin("p", R"(,"Windows":"a..b.dll")") + "," + plugin("q") +
                  "," + plugin("evil", R"(,"Windows":"..\\evil.dll")") +
                  R"(,{"Name":"bare"}],"Images":)" + images + "}");
    ASSERT_TRUE(r.ok);
    const CatalogueEntry& p = r.entries.at("p");
    EXPECT_EQ(p.url + "|" + p.description + "|" + p.contact + "|" + p.windowsFile,
              "h:1/files/|About p|dev@example.org|a..b.dll");
    EXPECT_EQ(std::vector<int>({p.hasWindowsFile, p.stability, p.major, p.minor}),
              std::vector<int>({1, 2, 2, 3}));
    ASSERT_EQ(p.images.size(), 1u);
    const ImageRecord& picture = p.images[0];
    EXPECT_EQ(picture.vendor + "|" + picture.product + "|" + picture.pngUrl + "|" + picture.icnsUrl,
              "Tessel|Box|h/box.png|h/box.icns");
    EXPECT_EQ(pictureName(picture), "Tessel_Box");
    EXPECT_EQ(pictureName(r.entries.at("q").images.at(0)), "");  // "../x": refused
    EXPECT_FALSE(r.entries.at("q").hasWindowsFile);
    EXPECT_FALSE(r.entries.at("evil").hasWindowsFile);
    EXPECT_NE(r.printed.find("Plug-in evil: refused file name \"..\\evil.dll\"\n"),
              std::string::npos);
    EXPECT_EQ(r.printed.find("member Windows"), std::string::npos);
    EXPECT_NE(r.printed.find("<<<<PLUGIN>>>>> p - h:1/files/ - About p\n"), std::string::npos);
    for (const char* member : {"URL", "Description", "Contact", "Certification", "Major", "Minor"})
        EXPECT_NE(r.printed.find(std::string("rapidJson: member ") + member +
                                 " not found; please fix it!\n"),
                  std::string::npos)
            << member;
    EXPECT_EQ(r.entries.at("bare").stability, -1);

    struct Name {
        const char* name;
        bool plain;
    } names[] = {{"proxy_tessel.dll", true},
                 {"a..b.dll", true},
                 {"proxy tessel-2.0.dll", true},
                 {"..", false},
                 {".", false},
                 {"", false},
                 {"../evil.dll", false},
                 {"a/b.dll", false},
                 {"a\\b.dll", false},
                 {"C:evil.dll", false},
                 {"/etc/evil.so", false},
                 {"\\\\server\\share.dll", false}};
    for (const Name& n : names)
        EXPECT_EQ(isPlainFileName(n.name), n.plain) << n.name;
}

// Catalogue version against the loaded one, and what the row shows; a newer local plug-in is
// not flagged, and a loaded plug-in the catalogue lacks is listed as installed.
TEST(Catalogue, StatusTable) {
    struct Case {
        const char* certification;
        int major, minor;
        std::optional<LocalVersion> local;
        bool file, downloaded;
        RowStatus status;
        const char* word;
    } cases[] = {
        {"release", 2, 0, LocalVersion{1, 9}, false, false, RowStatus::Outdated, "release"},
        {"beta", 2, 1, LocalVersion{2, 0}, true, true, RowStatus::Outdated, "beta"},
        {"experimental", 2, 0, LocalVersion{2, 0}, true, true, RowStatus::UpToDate, "experimental"},
        {"Beta", 1, 5, LocalVersion{2, 0}, false, false, RowStatus::UpToDate, "unknown"},
        {"release", 1, 0, std::nullopt, true, true, RowStatus::RestartNeeded, "release"},
        {"release", 1, 0, std::nullopt, true, false, RowStatus::Download, "release"},
        {"", 1, 0, std::nullopt, false, false, RowStatus::NotAvailable, "unknown"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.certification) + " " + std::to_string(c.major));
        CatalogueEntries entries;
        CatalogueEntry& entry = entries["p"];
        entry.name = "p";
        entry.stability = stabilityOf(c.certification);
        entry.major = c.major;
        entry.minor = c.minor;
        entry.hasWindowsFile = c.file;
        LocalVersions local{{"mystery", {3, 1}}};
        if (c.local)
            local["p"] = *c.local;
        applyStatus(entries, local);
        EXPECT_EQ(rowStatus(entries.at("p"), c.downloaded), c.status);
        EXPECT_STREQ(stabilityWord(entries.at("p").stability), c.word);
        const CatalogueEntry& mystery = entries.at("mystery");
        EXPECT_EQ(mystery.description + "|" + stabilityWord(mystery.stability),
                  "local unknown plugin|unknown");
        EXPECT_EQ(rowStatus(mystery, false), RowStatus::UpToDate);
    }

    json::Document server;
    ASSERT_TRUE(json::parseString(server,
                                  R"({"Config":{"Plugins":[{"Name":"a","Major":1,"Minor":9},)"
                                  R"(7,{"Name":"b","Major":2}],"PluginDirectory":["/a","/b"]}})"));
    LocalVersions versions;
    std::optional<std::vector<std::string>> folders;
    CaptureStdout();
    readServerConfig(server, versions, folders);
    GetCapturedStdout();
    EXPECT_EQ(versions.at("a").minor, 9);
    EXPECT_EQ(versions.at("b").minor, 0);
    EXPECT_EQ(folders, (std::vector<std::string>{"/a", "/b"}));
}

// What a broken or hostile catalogue server sends: a clear message, never a crash.
TEST(Catalogue, BadInputTable) {
    const std::string whole = R"({"Plugins":[)" + plugin("a") + R"(],"Images":[]})";
    struct Case {
        const char* name;
        std::string text;
        bool ok;
        std::size_t entries;
        const char* message;  // in the debug or printed text
    } cases[] = {
        {"html", "<html>404</html>", false, 0,
         "Unable to parse Json document: Invalid value. -> corrupted (0)\n"},
        {"cut off", whole.substr(0, whole.size() / 2), false, 0, "Unable to parse Json document: "},
        {"deep nesting", std::string(100000, '[') + std::string(100000, ']'), false, 0,
         "corrupted"},
        {"NUL inside", std::string(R"({"Plugins":[{"Name":"a)") + '\0' + R"(b"}],"Images":[]})",
         false, 0, "corrupted"},
        {"NUL after", whole + '\0' + "garbage", false, 0, "corrupted"},
        {"wrong arrays", R"({"Plugins":{"Name":"x"},"Images":7})", true, 0,
         "\"Plugins\" is not an array"},
        {"wrong members", R"({"Plugins":[3,{"Name":5,"Windows":7,"Major":"2"}],"Images":[1]})",
         true, 1, "not an object [Name]\n"},
        {"not an object", "[1,2,3]", true, 0, "the document is not an object"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Read r = read(c.text);
        EXPECT_EQ(r.ok, c.ok);
        EXPECT_EQ(r.entries.size(), c.entries);
        EXPECT_NE((r.debug + r.printed).find(c.message), std::string::npos) << r.debug << r.printed;
        for (const auto& [name, entry] : r.entries)
            EXPECT_FALSE(entry.hasWindowsFile);
    }
}

}  // namespace
