// kova-svc list and show: the catalogue as the library builds it.
#include <gtest/gtest.h>
#include <kovaserviceconf.h>
#include <strings.h>

#include <algorithm>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

class CliCatalogueTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/usr/kova/etc/services.d/cli-web.sc",
              "[global]\nversion=2\nsupport_key=\"supportcliweb\"\n\n[cli-web]\ntitle_key=\"pkg:common:web_ui\"\n"
              "title=\"Web pages\"\ndesc_key=\"firewall:desc_web\"\ndesc=\"Pages over HTTP\"\n"
              "desc_extra=\"and HTTPS\"\nport_forward=\"yes\"\ndst.ports=\"41443,41080,41500/tcp\"\n");
        write(
            "/usr/local/etc/services.d/cli-pkg.sc",
            "[Zeta-last]\ntitle=\"Zeta\"\ndesc=\"Sorted last\"\ndst.ports=\"41900:41910/udp\"\n"
            "src.ports=\"41999/udp\"\n\n[alpha-first]\ntitle=\"Alpha\"\ndesc=\"Sorted first\"\ndst.ports=\"41700\"\n");
    }
    void override_telnet() const {
        write("/usr/local/etc/services.d/telnet.sc", "[telnet]\ntitle=T\ndesc=Own telnet\ndst.ports=41023/tcp\n");
    }
};

const JsonValue &find(const JsonValue &services, const std::string &name) {
    for (size_t i = 0; i < services.size(); ++i)
        if (services[i]["name"].str() == name) return services[i];
    throw std::runtime_error("no service " + name);
}

TEST_F(CliCatalogueTest, ListJsonKeepsTheLibraryOrderAndFields) {
    ToolRun r = svc({"list", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), std::vector<std::string>{"services"});
    const JsonValue &services = doc["services"];
    for (size_t i = 0; i < services.size(); ++i)
        EXPECT_EQ(services[i].keys(),
                  (std::vector<std::string>{"name", "origin", "file", "support_key", "supported", "port_forward",
                                            "shadowed", "title", "desc", "dst", "src"}));
    KOVA_FW_SERVICE *head = nullptr;
    ASSERT_GE(KOVAFwServiceEnum(&head), 0);
    std::string library;
    for (auto *s = head; s != nullptr; s = s->next) library += std::string(s->name) + "; ";
    KOVAFwServiceFree(head);
    EXPECT_EQ(rows(services, {"name"}), library);

    const JsonValue &web = find(services, "cli-web");
    EXPECT_EQ(cells(web, {"origin", "file", "support_key", "port_forward", "src"}),
              "system " + path("/usr/kova/etc/services.d/cli-web.sc") + " supportcliweb true -");
    EXPECT_EQ(cells(web["title"], {"string_key", "prefix", "key"}), "pkg:common:web_ui pkg web_ui");
    EXPECT_EQ(web["desc"]["extra_text"].str(), "and HTTPS");
    // The library's order of the port items: the file's order reversed.
    EXPECT_EQ(web["dst"]["protocol"].str() + " " + rows(web["dst"]["ports"]), "tcp 41500; 41080; 41443; ");
    const JsonValue &zeta = find(services, "Zeta-last");
    EXPECT_EQ(zeta["origin"].str() + " " + rows(zeta["dst"]["ports"]) + zeta["src"]["protocol"].str(),
              "package 41900-41910; udp");
    EXPECT_EQ(find(services, "alpha-first")["dst"]["protocol"].str(), "tcp,udp");
    EXPECT_EQ(cells(find(services, "telnet"), {"origin", "file"}), "built-in -");
}

TEST_F(CliCatalogueTest, TableIsSortedByNameWrapsWithinEightyColumnsAndMarksHiddenServices) {
    std::string name(63, 'n'), ports;
    for (int p = 42100; p < 42140; p += 2) ports += (ports.empty() ? "" : ",") + std::to_string(p);
    write("/usr/local/etc/services.d/long.sc", "[" + name + "]\ntitle=L\ndesc=L\ndst.ports=" + ports + "/tcp\n");
    override_telnet();
    ToolRun r = svc({"list"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto lines = r.lines();
    ASSERT_GT(lines.size(), 2u);
    EXPECT_EQ(lines.back(), "* hidden from lookups by an earlier service of the same name");
    // A row has an origin; the lines under it continue its name and port cells in their columns.
    const size_t origin = lines[0].find("ORIGIN");
    std::vector<std::string> names;
    std::string long_name;
    for (size_t i = 1; i + 1 < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 80u) << lines[i];
        std::string first = lines[i].substr(0, lines[i].find(' '));
        if (lines[i].size() > origin && lines[i][origin] != ' ') names.push_back(first);
        if (!first.empty() && first.find_first_not_of('n') == std::string::npos) long_name += first;
    }
    EXPECT_EQ(long_name, name);
    auto by_name = [](const std::string &a, const std::string &b) { return strcasecmp(a.c_str(), b.c_str()) < 0; };
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end(), by_name)) << r.out;
    // Ports ascending with their protocol; no source ports show as "-".
    const char *const expected[][2] = {
        {"cli-web", " system "},     {"cli-web", " 41080,41443,"},       {"Zeta-last", " 41900-41910/udp "},
        {"Zeta-last", " 41999/udp"}, {"alpha-first", " 41700/tcp,udp "}, {"alpha-first", "  -"},
        {"telnet", " built-in*  "}};
    for (const auto &[service, cell] : expected) {
        auto row = std::find_if(lines.begin(), lines.end(), [&](auto &l) {
            return l.rfind(std::string(service) + " ", 0) == 0 && l.find(cell) != std::string::npos;
        });
        EXPECT_NE(row, lines.end()) << service << ":" << cell << "\n" << r.out;
    }
    EXPECT_TRUE(r.has("42138/tcp"));

    // The same names, once each and in full.
    names.erase(std::unique(names.begin(), names.end()), names.end());
    auto listed = svc({"list", "--names"}).lines();
    ASSERT_EQ(listed.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(listed[i].rfind(names[i], 0), 0u) << listed[i];
}

TEST_F(CliCatalogueTest, ShowGivesTheServiceInFullWithEscapedJsonAndTheHiddenRecords) {
    ToolRun r = svc({"show", "cli-web"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const std::string &line : std::vector<std::string>{
             "File:         " + path("/usr/kova/etc/services.d/cli-web.sc"),
             "Title:        Web pages [pkg:common:web_ui]", "Description:  Pages over HTTP [firewall:desc_web]",
             "Extra text:   and HTTPS", "Support key:  supportcliweb", "Destination:  41080,41443,41500/tcp"})
        EXPECT_TRUE(r.has(line + "\n")) << line << "\n" << r.out;

    JsonValue builtin = svc({"show", "telnet", "--json"}).json();
    EXPECT_EQ(builtin.keys(), (std::vector<std::string>{"service", "hidden"}));
    EXPECT_EQ(cells(builtin["service"], {"origin", "file"}) + " " + rows(builtin["service"]["dst"]["ports"]) +
                  builtin["service"]["desc"]["string_key"].str() + " " + rows(builtin["hidden"], {"origin"}),
              "built-in - 23; firewall:firewall_service_desc_telnet ");
    // A package service of the same name hides the built-in one from lookups.
    override_telnet();
    JsonValue own = svc({"show", "telnet", "--json"}).json();
    EXPECT_EQ(cells(own["service"], {"origin"}) + " " + rows(own["service"]["dst"]["ports"]) +
                  rows(own["hidden"], {"origin", "file"}),
              "package 41023; built-in -; ");

    // Quotes, a backslash, a tab, a byte that is not UTF-8 and a UTF-8 letter.
    write("/usr/local/etc/services.d/odd.sc",
          "[odd-text]\ntitle=Say \"hi\" \\ now\ttab\ndesc=Caf\xc3\xa9 \xff end\ndst.ports=41555/tcp\n");
    ToolRun odd = svc({"show", "odd-text", "--json"});
    ASSERT_EQ(odd.status, 0) << odd.err;
    JsonValue escaped = odd.json();  // a raw tab would not parse
    EXPECT_EQ(escaped["service"]["title"]["text"].str(), "Say \"hi\" \\ now\ttab");
    EXPECT_EQ(escaped["service"]["desc"]["text"].str(), "Caf\xc3\xa9 \xef\xbf\xbd end");

    expect_error(svc({"show", "no-such"}), 3, "kova-svc: show: no service named 'no-such' in the catalogue\n");
}

}  // namespace
}  // namespace kova::cli_test
