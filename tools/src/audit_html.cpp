// The audit page: one self-contained HTML document (no script, style sheet, font or image from
// outside), readable without scripting and printable.
#include <algorithm>
#include <cstdio>

#include "audit.h"
#include "ports_text.h"

namespace kovasvc {

namespace {

constexpr double kWidth = 1000, kLeft = 110, kLaneHeight = 26, kLabelRow = 16;

std::string esc(const std::string &text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string num(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}

// The well-known ports get a quarter of the width, the registered ports half, the dynamic
// ports the last quarter, so that the crowded low ports stay apart.
double x_of(unsigned int port) {
    double span = kWidth - kLeft - 10;
    if (port < 1024) return kLeft + span * 0.25 * port / 1024.0;
    if (port < 49152) return kLeft + span * (0.25 + 0.5 * (port - 1024) / 48128.0);
    return kLeft + span * (0.75 + 0.25 * (port - 49152) / 16384.0);
}

struct Mark {
    PortRun run;
    int lane;
    const char *css;
    std::string title;
};

struct Label {
    double x;
    std::string text;
    const char *css;
};

void rect(std::ostream &out, const Mark &m) {
    double x1 = x_of(m.run.first), x2 = std::max(x_of(m.run.last + 1), x1 + 2.0);
    out << "<rect class=\"" << m.css << "\" x=\"" << num(x1) << "\" y=\"" << num(20 + m.lane * kLaneHeight + 4)
        << "\" width=\"" << num(x2 - x1) << "\" height=\"" << num(kLaneHeight - 8) << "\"><title>" << esc(m.title)
        << "</title></rect>\n";
}

void map_svg(std::ostream &out, const Audit &a) {
    std::vector<Mark> marks;
    std::vector<Label> labels;
    for (const auto &h : a.declared) {
        const char *css = h.source == HolderSource::Service    ? "svc"
                          : h.source == HolderSource::Reserved ? "rsv"
                                                               : "fwd";
        marks.push_back({h.run, 0, css, run_text(h.run) + " " + source_name(h.source) + " " + h.name});
    }
    for (const auto &l : a.listening.holders)
        marks.push_back({l.run, 1, l.visible ? "lis" : "hid", run_text(l.run) + " " + program_text(l)});
    for (const auto *l : a.undeclared) {
        marks.push_back({l->run, 2, "und", "undeclared " + run_text(l->run)});
        labels.push_back(
            {x_of(l->run.first), run_text(l->run) + "/" + protocol_names(l->protocols) + " undeclared", "und"});
    }
    for (const auto &d : a.doubles) {
        std::string names;
        for (const auto &s : d.services) names += (names.empty() ? "" : ", ") + s;
        marks.push_back({d.run, 2, "dbl", "double " + run_text(d.run) + " " + names});
        labels.push_back({x_of(d.run.first), run_text(d.run) + "/" + protocol_names(d.protocol) + " " + names, "dbl"});
    }
    for (const auto &s : a.shared)
        labels.push_back({x_of(s.listener->run.first), run_text(s.listener->run) + " " + s.service, "shr"});
    for (const auto &s : a.shared) marks.push_back({s.listener->run, 2, "shr", "shared " + s.service});

    // Labels in rows below the lanes: each goes to the first row where it does not touch the
    // label before it, with a line back to its port.
    std::sort(labels.begin(), labels.end(), [](const Label &x, const Label &y) { return x.x < y.x; });
    std::vector<double> row_end;
    std::vector<int> row_of;
    for (const auto &l : labels) {
        double width = 6.5 * static_cast<double>(l.text.size()) + 8;
        size_t r = 0;
        while (r < row_end.size() && row_end[r] > l.x) ++r;
        if (r == row_end.size()) row_end.push_back(0);
        row_end[r] = l.x + width;
        row_of.push_back(static_cast<int>(r));
    }
    double axis = 20 + 3 * kLaneHeight;
    double height = axis + 40 + kLabelRow * static_cast<double>(row_end.size()) + 10;
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-label=\"Map of the port space 0 to 65535\" "
           "viewBox=\"0 0 "
        << num(kWidth + 300) << " " << num(height) << "\" width=\"100%\">\n";
    const char *lanes[] = {"declared", "listening", "findings"};
    for (int i = 0; i < 3; ++i) {
        out << "<text class=\"lane\" x=\"4\" y=\"" << num(20 + i * kLaneHeight + 17) << "\">" << lanes[i]
            << "</text>\n";
        out << "<rect class=\"lane-bg\" x=\"" << num(kLeft) << "\" y=\"" << num(20 + i * kLaneHeight + 2)
            << "\" width=\"" << num(kWidth - kLeft - 10) << "\" height=\"" << num(kLaneHeight - 4) << "\"/>\n";
    }
    for (const auto &m : marks) rect(out, m);
    for (unsigned int tick : {0u, 1024u, 8000u, 20000u, 49152u, 65535u}) {
        double x = x_of(tick);
        out << "<line class=\"tick\" x1=\"" << num(x) << "\" y1=\"" << num(axis) << "\" x2=\"" << num(x) << "\" y2=\""
            << num(axis + 5) << "\"/><text class=\"tick\" x=\"" << num(x) << "\" y=\"" << num(axis + 16) << "\">"
            << tick << "</text>\n";
    }
    for (size_t i = 0; i < labels.size(); ++i) {
        double y = axis + 34 + kLabelRow * row_of[i];
        out << "<line class=\"lead\" x1=\"" << num(labels[i].x) << "\" y1=\"" << num(20 + 2 * kLaneHeight + 22)
            << "\" x2=\"" << num(labels[i].x) << "\" y2=\"" << num(y - 10) << "\"/>";
        out << "<text class=\"label " << labels[i].css << "-t\" x=\"" << num(labels[i].x) << "\" y=\"" << num(y)
            << "\">" << esc(labels[i].text) << "</text>\n";
    }
    out << "</svg>\n";
}

void table(std::ostream &out, const std::vector<std::string> &head, const std::vector<std::vector<std::string>> &rows) {
    if (rows.empty()) {
        out << "<p>None.</p>\n";
        return;
    }
    out << "<table><thead><tr>";
    for (const auto &h : head) out << "<th>" << esc(h) << "</th>";
    out << "</tr></thead><tbody>\n";
    for (const auto &r : rows) {
        out << "<tr>";
        for (const auto &c : r) out << "<td>" << esc(c) << "</td>";
        out << "</tr>\n";
    }
    out << "</tbody></table>\n";
}

}  // namespace

void write_audit_html(std::ostream &out, const Audit &a, const LocalAddresses &addresses) {
    auto where = [&](const Holder &l) {
        const bool *lo = addresses.loopback_only(l.run.first, l.protocols);
        return std::string(lo == nullptr ? "-" : *lo ? "loopback" : "any");
    };
    auto pid = [](const Holder &l) { return l.visible ? std::to_string(l.pid) : std::string("-"); };
    out << R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>kova-svc audit</title>
<style>
body{font-family:sans-serif;margin:2em;color:#111}
table{border-collapse:collapse;margin:0.5em 0 1.5em}
th,td{border:1px solid #999;padding:2px 8px;text-align:left;font-family:monospace}
th{background:#eee}
.legend span{display:inline-block;margin-right:1.2em}
.sw{display:inline-block;width:1em;height:0.8em;margin-right:0.3em;vertical-align:middle}
svg text{font-family:monospace;font-size:11px}
.lane-bg{fill:#f4f4f4}
.svc{fill:#3b6fd6}.rsv{fill:#888}.fwd{fill:#8a4fc4}.lis{fill:#2e9a48}.hid{fill:#333}
.und{fill:#d62f2f}.dbl{fill:#e08a00}.shr{fill:#138a8a}
.und-t{fill:#b00000}.dbl-t{fill:#a55f00}.shr-t{fill:#0b6262}
.tick,.lead{stroke:#666;stroke-width:0.6}
text.tick{stroke:none;fill:#333;text-anchor:middle}
@media print{body{margin:0.5cm}}
</style></head><body>
<h1>Audit: what listens against what is declared</h1>
)";
    out << "<table><tbody>\n<tr><th>Undeclared listeners</th><td>" << a.undeclared.size() << "</td></tr>\n"
        << "<tr><th>Silent declarations</th><td>"
        << (a.listening.in_use_known ? std::to_string(a.silent.size()) : "not checked (offline root)") << "</td></tr>\n"
        << "<tr><th>Double declarations</th><td>" << a.doubles.size() << "</td></tr>\n"
        << "<tr><th>Shared ports</th><td>" << a.shared.size() << "</td></tr>\n</tbody></table>\n";
    out << "<h2>Port map</h2>\n<p class=\"legend\">"
        << "<span><i class=\"sw svc\" style=\"background:#3b6fd6\"></i>service</span>"
        << "<span><i class=\"sw\" style=\"background:#888\"></i>reserved</span>"
        << "<span><i class=\"sw\" style=\"background:#8a4fc4\"></i>forwarding rule</span>"
        << "<span><i class=\"sw\" style=\"background:#2e9a48\"></i>listener</span>"
        << "<span><i class=\"sw\" style=\"background:#333\"></i>listener not visible to this user</span>"
        << "<span><i class=\"sw\" style=\"background:#d62f2f\"></i>undeclared listener</span>"
        << "<span><i class=\"sw\" style=\"background:#e08a00\"></i>double declaration</span>"
        << "<span><i class=\"sw\" style=\"background:#138a8a\"></i>shared port</span></p>\n"
        << "<p>Ports 0-1023 take the first quarter of the axis, 1024-49151 the middle half, 49152-65535 the last "
           "quarter.</p>\n";
    map_svg(out, a);

    out << "<h2>Undeclared listeners</h2>\n";
    std::vector<std::vector<std::string>> rows;
    for (const auto *l : a.undeclared)
        rows.push_back(
            {std::to_string(l->run.first), protocol_names(l->protocols), where(*l), pid(*l), program_text(*l)});
    table(out, {"Port", "Protocol", "Address", "PID", "Program"}, rows);
    out << "<h2>Silent declarations</h2>\n";
    rows.clear();
    for (const auto *e : a.silent) rows.push_back({e->name, ports_with_protocol(e->dst, e->dst_protocol)});
    if (a.listening.in_use_known)
        table(out, {"Service", "Ports"}, rows);
    else
        out << "<p>Not checked: the root has no process tables.</p>\n";
    out << "<h2>Double declarations</h2>\n";
    rows.clear();
    for (const auto &d : a.doubles) {
        std::string names;
        for (const auto &s : d.services) names += (names.empty() ? "" : ", ") + s;
        rows.push_back({run_text(d.run), protocol_names(d.protocol), names});
    }
    table(out, {"Ports", "Protocol", "Services"}, rows);
    out << "<h2>Shared ports</h2>\n";
    rows.clear();
    for (const auto &s : a.shared)
        rows.push_back({std::to_string(s.listener->run.first), protocol_names(s.listener->protocols), s.service,
                        pid(*s.listener), program_text(*s.listener)});
    table(out, {"Port", "Protocol", "Service", "PID", "Program"}, rows);
    out << "</body></html>\n";
}

}  // namespace kovasvc
