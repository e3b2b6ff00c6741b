#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "model.hpp"
#include "runview.hpp"

namespace sim {

namespace fs = std::filesystem;

namespace {

// Rows of the decision strip, bottom up.
const char *const kRows[] = {"UP", "DOWN", "BAL", "SEG", "BOOST"};

int row_of(const std::string &kind) {
    for (int i = 0; i < 5; ++i)
        if (kind == kRows[i])
            return i + 1;
    return 0;
}

const char *cpu_colour(int c) {
    static const char *const k[] = {"#9ecae1", "#6baed6", "#3182bd", "#08519c",
                                    "#fdae6b", "#fd8d3c", "#e6550d", "#a63603"};
    return k[c];
}

std::string quoted(const std::string &s) {
    std::string q = "\"";
    for (char c : s) q += (c == '"' || c == '\\') ? '\'' : c;
    return q + "\"";
}

void write_data(const fs::path &d, const PictureData &p) {
    std::ofstream cpus(d / "cpus.dat"), flows(d / "flows.dat"), dec(d / "decisions.dat");
    cpus << "# t spare_pps cpu0..cpu7\n";
    flows << "# t cpu of each flow (NaN while inactive):";
    for (const auto &f : p.flows) flows << ' ' << hash_str(f.hash);
    flows << '\n';
    char b[64];
    for (const auto &smp : p.samples) {
        std::snprintf(b, sizeof b, "%.3f", smp.t);
        cpus << b;
        flows << b;
        for (double v : smp.spare) std::isnan(v) ? cpus << " NaN" : cpus << ' ' << v;
        for (size_t i = 0; i < p.flows.size(); ++i) {
            int c = i < smp.flow_cpu.size() ? smp.flow_cpu[i] : -1;
            flows << ' ' << (c < 0 ? std::string("NaN") : std::to_string(c));
        }
        cpus << '\n';
        flows << '\n';
    }
    dec << "# t row accepted label\n-1 0 2 \"\"\n";
    for (const auto &x : p.decisions) {
        std::snprintf(b, sizeof b, "%.3f %d %d ", x.t, row_of(x.kind), x.accepted ? 1 : 0);
        dec << b << quoted(x.label) << '\n';
    }
}

std::string counts(const std::vector<Decision> &ds) {
    std::map<std::string, std::pair<int, int>> n;
    for (const auto &d : ds) {
        n[d.kind].first++;
        n[d.kind].second += d.accepted;
    }
    std::string out;
    for (const char *k : kRows)
        out += std::string(out.empty() ? "" : ", ") + k + " " + std::to_string(n[k].second) + "/" +
               std::to_string(n[k].first);
    return out + " accepted/asked";
}

void flow_panel(std::ostream &g, const PictureData &p);
void decision_panel(std::ostream &g, const PictureData &p);

void write_script(const fs::path &gp, const PictureData &p) {
    const std::vector<Decision> &ds = p.decisions;
    std::ofstream g(gp);
    g << "set terminal pngcairo noenhanced size 1400,1100 font 'Sans,10'\n"
         "set output 'report.png'\n"
         "set datafile missing 'NaN'\n"
      << "set multiplot title " << quoted(p.title + ": " + counts(ds))
      << "\nset xrange [0:" << p.duration << "]\n"
      << "set lmargin 12\nset rmargin 30\nset grid\nset key outside right top\n";
    // Spare capacity, with every move drawn where it was answered.
    g << "set origin 0,0.50\nset size 1,0.46\n"
         "set title 'Spare capacity per CPU (kpps); vertical lines: moves (solid accepted, "
         "dotted refused)'\n"
         "set ylabel 'spare kpps'\nset format x ''\nset yrange [0:*]\n"
         "set offsets 0, 0, graph 0.12, 0\n"
         "set arrow 999 from graph 0, first 8 to graph 1, first 8 nohead lc rgb '#d62728' dt 2\n"
         "set label 999 '8 kpps: a silver CPU below it is moved up' at graph 0.01, first 8 "
         "offset 0,0.6 tc rgb '#d62728' font ',8'\n";
    // Beyond a dozen moves their names would only cover each other.
    bool dense =
        std::count_if(ds.begin(), ds.end(), [](const Decision &d) { return d.cur >= 0; }) > 12;
    int n = 0;
    for (const auto &d : ds) {
        if (d.cur < 0)
            continue;
        ++n;
        g << "set arrow " << n << " from " << d.t << ", graph 0 to " << d.t
          << ", graph 1 nohead lc rgb '#555555' dt " << (d.accepted ? 1 : 3) << "\n";
        if (dense)
            continue;
        g << "set label " << n << ' ' << quoted(d.label) << " at " << d.t
          << ", graph 0.98 rotate by 90 right offset -0.6,0 font ',8'\n";
    }
    g << "plot for [c=0:7] 'report/cpus.dat' using 1:(column(c+2)/1000.0) with lines lw 1.6 "
         "lc rgb word('";
    for (int c = 0; c < kCpus; ++c) g << (c ? " " : "") << cpu_colour(c);
    g << "', c+1) title sprintf('cpu%d %s', c, c < 4 ? 'silver' : 'gold')\n"
         "unset arrow\nunset label\nset offsets 0, 0, 0, 0\n";
    flow_panel(g, p);
    decision_panel(g, p);
}

// Where each flow is.
void flow_panel(std::ostream &g, const PictureData &p) {
    g << "set origin 0,0.27\nset size 1,0.24\nset title "
      << quoted("Each flow's CPU (shaded: silver CPUs 0-3)" + p.flow_note)
      << "\n"
         "set ylabel 'cpu'\nset yrange [-0.6:7.6]\nset ytics 0,1,7\n"
         "set object 1 rect from graph 0, first -0.5 to graph 1, first 3.5 fc rgb '#eeeeee' "
         "fs solid behind\n";
    g << "plot ";
    if (p.flows.empty())
        g << "NaN notitle";
    for (size_t i = 0; i < p.flows.size(); ++i) {
        double off = (double(i) - double(p.flows.size() - 1) / 2) * 0.06;
        g << (i ? ", \\\n     " : "") << "'report/flows.dat' using 1:($" << i + 2 << "+(" << off
          << ")) with steps lw 2.5 title "
          << quoted(hash_str(p.flows[i].hash) + " " + p.flows[i].name);
    }
    g << "\nunset object 1\n";
}

// One row per kind of decision.
void decision_panel(std::ostream &g, const PictureData &p) {
    const std::vector<Decision> &ds = p.decisions;
    g << "set origin 0,0.02\nset size 1,0.26\nset title 'Decisions (filled: accepted, open: "
         "refused or failed)'\n"
         "set ylabel ''\nset yrange [0.4:5.8]\n"
         "set ytics ('UP' 1, 'DOWN' 2, 'BAL' 3, 'SEG off' 4, 'BOOST' 5)\n"
         "set format x '%g'\nset xlabel "
      << quoted(p.xlabel)
      << "\n"
         "plot 'report/decisions.dat' using 1:($3==1 ? $2 : NaN) with points pt 7 ps 1.6 lc "
         "rgb '#2ca02c' title 'accepted', \\\n";
    if (std::any_of(ds.begin(), ds.end(), [](const Decision &d) { return !d.accepted; }))
        g << "     '' using 1:($3==0 ? $2 : NaN) with points pt 6 ps 1.6 lc rgb '#d62728' "
             "title 'refused', \\\n";
    // A row at 0, off the plot, keeps a run without decisions drawable.
    g << "     '' using 1:2:" << (ds.size() > p.max_labels ? "(\"\")" : "4")
      << " with labels rotate by 30 left offset 0.6,0.5 font ',8' notitle\n"
         "unset multiplot\n";
}

}  // namespace

fs::path draw_picture(const fs::path &dir, const PictureData &p, std::string &why) {
    fs::create_directories(dir / "report");
    write_data(dir / "report", p);
    write_script(dir / "report/report.gp", p);
    fs::path png = dir / "report.png";
    fs::remove(png);
    std::string cmd = "cd '" + dir.string() + "' && gnuplot report/report.gp 2>report/gnuplot.err";
    if (std::system(cmd.c_str()) != 0 || !fs::exists(png)) {
        why = "gnuplot failed or is missing (bash scripts/setup-deps.sh gnuplot-nox); see " +
              (dir / "report/gnuplot.err").string();
        return {};
    }
    return png;
}

fs::path write_picture(const fs::path &dir, const Scenario &s,
                       const std::vector<Decision> &decisions, const Replay &run,
                       std::string &why) {
    PictureData p;
    p.title = "zebusrd on scenario " + s.name;
    p.duration = run.samples.empty() ? 0 : run.samples.back().t + run.tick_s;
    for (const auto &f : s.flows) p.flows.push_back({f.hash, f.name});
    p.samples = run.samples;
    p.decisions = decisions;
    return draw_picture(dir, p, why);
}

}  // namespace sim
