// kova-svc list and show: the catalogue as the library builds it.
#include <gtest/gtest.h>
#include <kovaserviceconf.h>

#include <algorithm>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

const char kSystemFile[] =
    "[global]\n"
    "version=2\n"
    "support_key=\"supportcliweb\"\n"
    "\n"
    "[cli-web]\n"
    "title_key=\"pkg:common:web_ui\"\n"
    "title=\"Web pages\"\n"
    "desc_key=\"firewall:desc_web\"\n"
    "desc=\"Pages over HTTP\"\n"
    "desc_extra=\"and HTTPS\"\n"
    "port_forward=\"yes\"\n"
    "dst.ports=\"41443,41080/tcp\"\n";

const char kPackageFile[] =
    "[Zeta-last]\n"
    "title=\"Zeta\"\n"
    "desc=\"Sorted last\"\n"
    "dst.ports=\"41900:41910/udp\"\n"
    "src.ports=\"41999/udp\"\n"
    "\n"
    "[alpha-first]\n"
    "title=\"Alpha\"\n"
    "desc=\"Sorted first\"\n"
    "dst.ports=\"41700\"\n";

class CliCatalogueTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/usr/kova/etc/services.d/cli-web.sc", kSystemFile);
        write("/usr/local/etc/services.d/cli-pkg.sc", kPackageFile);
    }

    // The names of the catalogue as the library lists them.
    static std::vector<std::string> library_names() {
        KOVA_FW_SERVICE *head = nullptr;
        EXPECT_GE(KOVAFwServiceEnum(&head), 0);
        std::vector<std::string> names;
        for (auto *s = head; s != nullptr; s = s->next) names.emplace_back(s->name);
        KOVAFwServiceFree(head);
        return names;
    }

    static const JsonValue *find(const JsonValue &services, const std::string &name) {
        for (size_t i = 0; i < services.size(); ++i)
            if (services[i]["name"].str() == name) return &services[i];
        return nullptr;
    }
};

TEST_F(CliCatalogueTest, JsonKeepsTheLibraryOrderAndDocumentedFields) {
    ToolRun r = svc({"list", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), std::vector<std::string>{"services"});
    const JsonValue &services = doc["services"];
    std::vector<std::string> names;
    for (size_t i = 0; i < services.size(); ++i) names.push_back(services[i]["name"].str());
    EXPECT_EQ(names, library_names());

    const std::vector<std::string> fields = {"name",     "origin", "file", "support_key", "supported", "port_forward",
                                             "shadowed", "title",  "desc", "dst",         "src"};
    for (size_t i = 0; i < services.size(); ++i) EXPECT_EQ(services[i].keys(), fields);

    const JsonValue *web = find(services, "cli-web");
    ASSERT_NE(web, nullptr);
    EXPECT_EQ((*web)["origin"].str(), "system");
    EXPECT_EQ((*web)["file"].str(), path("/usr/kova/etc/services.d/cli-web.sc"));
    EXPECT_EQ((*web)["support_key"].str(), "supportcliweb");
    EXPECT_TRUE((*web)["port_forward"].boolean());
    EXPECT_EQ((*web)["title"]["string_key"].str(), "pkg:common:web_ui");
    EXPECT_EQ((*web)["title"]["prefix"].str(), "pkg");
    EXPECT_EQ((*web)["title"]["key"].str(), "web_ui");
    EXPECT_EQ((*web)["desc"]["extra_text"].str(), "and HTTPS");
    EXPECT_EQ((*web)["dst"]["protocol"].str(), "tcp");
    // The library's order of port items: the reverse of the file's text.
    EXPECT_EQ((*web)["dst"]["ports"][0].str(), "41080");
    EXPECT_EQ((*web)["dst"]["ports"][1].str(), "41443");
    EXPECT_TRUE((*web)["src"].is_null());

    const JsonValue *zeta = find(services, "Zeta-last");
    ASSERT_NE(zeta, nullptr);
    EXPECT_EQ((*zeta)["origin"].str(), "package");
    EXPECT_EQ((*zeta)["dst"]["ports"][0].str(), "41900-41910");
    EXPECT_EQ((*zeta)["src"]["protocol"].str(), "udp");
    EXPECT_EQ((*find(services, "alpha-first"))["dst"]["protocol"].str(), "tcp,udp");

    const JsonValue *telnet = find(services, "telnet");
    ASSERT_NE(telnet, nullptr);
    EXPECT_EQ((*telnet)["origin"].str(), "built-in");
    EXPECT_TRUE((*telnet)["file"].is_null());
}

TEST_F(CliCatalogueTest, TableIsSortedByNameAndFitsEightyColumns) {
    ToolRun r = svc({"list"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto lines = r.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("NAME", 0), 0u);
    std::vector<std::string> names;
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 80u) << lines[i];
        if (!lines[i].empty() && lines[i][0] != ' ' && lines[i][0] != '*')
            names.push_back(lines[i].substr(0, lines[i].find(' ')));
    }
    auto lower = [](std::string s) {
        for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end(), [&](const std::string &a, const std::string &b) {
        return lower(a) < lower(b);
    })) << r.out;
    auto row = [&](const std::string &name) {
        for (const auto &l : lines)
            if (l.rfind(name + " ", 0) == 0) return l;
        return std::string();
    };
    // Ports ascending, with the protocol; a service without source ports shows "-".
    EXPECT_NE(row("cli-web").find("41080,41443/tcp"), std::string::npos) << row("cli-web");
    EXPECT_NE(row("cli-web").find(" system "), std::string::npos);
    EXPECT_NE(row("Zeta-last").find(" 41900-41910/udp "), std::string::npos) << row("Zeta-last");
    EXPECT_NE(row("Zeta-last").find(" 41999/udp"), std::string::npos) << row("Zeta-last");
    EXPECT_NE(row("alpha-first").find(" 41700/tcp,udp "), std::string::npos) << row("alpha-first");
    EXPECT_EQ(row("alpha-first").back(), '-');

    ToolRun names_only = svc({"list", "--names"});
    EXPECT_EQ(names_only.status, 0);
    auto listed = names_only.lines();
    EXPECT_NE(std::find(listed.begin(), listed.end(), "cli-web"), listed.end());
    EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end(),
                               [&](const std::string &a, const std::string &b) { return lower(a) < lower(b); }));
}

TEST_F(CliCatalogueTest, LongNamesAndPortListsWrapWithinEightyColumns) {
    std::string name(63, 'n');
    std::string ports;
    for (int p = 42100; p < 42140; p += 2) ports += (ports.empty() ? "" : ",") + std::to_string(p);
    write("/usr/local/etc/services.d/long.sc",
          "[" + name + "]\ntitle=\"Long\"\ndesc=\"Long\"\ndst.ports=\"" + ports + "/tcp\"\n");
    ToolRun r = svc({"list"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const auto &line : r.lines()) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_NE(r.out.find("42138/tcp"), std::string::npos);
    // The name is cut into pieces that keep their column.
    EXPECT_NE(r.out.find(name.substr(0, 20)), std::string::npos);
}

TEST_F(CliCatalogueTest, ShowGivesTheServiceTheFileAndTheStringKeys) {
    ToolRun r = svc({"show", "cli-web"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("File:         " + path("/usr/kova/etc/services.d/cli-web.sc")), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Title:        Web pages [pkg:common:web_ui]"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Description:  Pages over HTTP [firewall:desc_web]"), std::string::npos);
    EXPECT_NE(r.out.find("Extra text:   and HTTPS"), std::string::npos);
    EXPECT_NE(r.out.find("Support key:  supportcliweb"), std::string::npos);
    EXPECT_NE(r.out.find("Destination:  41080,41443/tcp"), std::string::npos);

    ToolRun builtin = svc({"show", "telnet", "--json"});
    ASSERT_EQ(builtin.status, 0) << builtin.err;
    JsonValue doc = builtin.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"service", "hidden"}));
    EXPECT_EQ(doc["service"]["origin"].str(), "built-in");
    EXPECT_EQ(doc["service"]["dst"]["ports"][0].str(), "23");
    EXPECT_EQ(doc["service"]["desc"]["string_key"].str(), "firewall:firewall_service_desc_telnet");
    EXPECT_EQ(doc["hidden"].size(), 0u);
}

TEST_F(CliCatalogueTest, APackageServiceHidesTheBuiltInOfTheSameName) {
    write("/usr/local/etc/services.d/telnet-override.sc",
          "[telnet]\ntitle=\"Own telnet\"\ndesc=\"Replaces the built-in\"\ndst.ports=\"41023/tcp\"\n");
    ToolRun r = svc({"show", "telnet", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc["service"]["origin"].str(), "package");
    EXPECT_EQ(doc["service"]["dst"]["ports"][0].str(), "41023");
    ASSERT_EQ(doc["hidden"].size(), 1u);
    EXPECT_EQ(doc["hidden"][0]["origin"].str(), "built-in");

    ToolRun table = svc({"list"});
    EXPECT_NE(table.out.find("built-in*"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("\n* hidden from lookups"), std::string::npos);
}

TEST_F(CliCatalogueTest, ShowOfAnUnknownServiceFails) {
    ToolRun r = svc({"show", "no-such-service"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(r.err, "kova-svc: show: no service named 'no-such-service' in the catalogue\n");
}

TEST_F(CliCatalogueTest, JsonEscapesEveryText) {
    // Quotes, a backslash, a tab, a byte that is not UTF-8 and a UTF-8 letter.
    write("/usr/local/etc/services.d/odd.sc",
          "[odd-text]\ntitle=Say \"hi\" \\ now\ttab\ndesc=Caf\xc3\xa9 \xff end\ndst.ports=41555/tcp\n");
    ToolRun r = svc({"show", "odd-text", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc["service"]["title"]["text"].str(), "Say \"hi\" \\ now\ttab");
    EXPECT_EQ(doc["service"]["desc"]["text"].str(), "Caf\xc3\xa9 \xef\xbf\xbd end");
    EXPECT_EQ(r.out.find('\t'), std::string::npos);  // escaped, not raw
}

}  // namespace
}  // namespace kova::cli_test
