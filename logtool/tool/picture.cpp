// picture LOG -o OUT.png [--run N] [--data DIR]: the run command's picture
// drawn from a log. One run is drawn (the first unless --run says which):
// runs of one file share no time axis, since each starts its own.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "picture_series.hpp"
#include "verbs.hpp"

namespace zlog {

namespace fs = std::filesystem;

namespace {

struct PictureArgs {
    std::string log, out, data;
    uint64_t run = 1;  // 1-based, as people count
};

bool parse(const Words &w, PictureArgs &a) {
    for (size_t i = 0; i < w.size(); ++i) {
        bool has_value = i + 1 < w.size();
        if ((w[i] == "-o" || w[i] == "--data") && has_value) {
            std::string &to = w[i] == "-o" ? a.out : a.data;
            to = w[++i];
        } else if (w[i] == "--run" && has_value) {
            char *end = nullptr;
            a.run = std::strtoull(w[++i].c_str(), &end, 10);
            if (*end || a.run == 0)
                return false;
        } else if (a.log.empty() && (w[i] == "-" || w[i][0] != '-')) {
            a.log = w[i];
        } else {
            return false;
        }
    }
    return !a.log.empty() && !a.out.empty();
}

// Gnuplot writes report.png and its data into a folder: --data keeps it,
// otherwise a temporary one goes once the picture is copied out.
int draw(const PictureArgs &a, const sim::PictureData &d) {
    fs::path work = a.data;
    if (work.empty()) {
        std::string tmpl = (fs::temp_directory_path() / "zebusr-picture.XXXXXX").string();
        if (!mkdtemp(tmpl.data())) {
            std::perror("zebusr-log: picture: mkdtemp");
            return 2;
        }
        work = tmpl;
    }
    std::string why;
    fs::path png = sim::draw_picture(work, d, why);
    std::error_code ec;
    if (!png.empty())
        fs::copy_file(png, a.out, fs::copy_options::overwrite_existing, ec);
    if (a.data.empty())
        fs::remove_all(work);
    if (png.empty() || ec) {
        std::fprintf(stderr, "zebusr-log: picture: %s\n",
                     png.empty() ? why.c_str() : (a.out + ": " + ec.message()).c_str());
        return 2;
    }
    return 0;
}

}  // namespace

int verb_picture(const Words &w) {
    PictureArgs a;
    if (!parse(w, a)) {
        std::fputs("usage: zebusr-log picture LOG -o OUT.png [--run N] [--data DIR]\n", stderr);
        return 2;
    }
    PictureSink sink(a.run - 1);
    std::string why;
    if (!read_log(a.log, sink, why)) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        return 2;
    }
    if (a.run > sink.runs()) {
        std::fprintf(stderr, "zebusr-log: picture: the log holds %llu run(s), not %llu\n",
                     (unsigned long long)sink.runs(), (unsigned long long)a.run);
        return 2;
    }
    std::string name = a.log == "-" ? "standard input" : fs::path(a.log).filename().string();
    std::string title = "zebusrd log " + name + ", run " + std::to_string(a.run) + " of " +
                        std::to_string(sink.runs());
    sim::PictureData d = sink.data(title);
    if (int rc = draw(a, d))
        return rc;
    std::printf("%s: run %llu of %llu, %llu cycles with tables (%zu points drawn), %zu decisions\n",
                a.out.c_str(), (unsigned long long)a.run, (unsigned long long)sink.runs(),
                (unsigned long long)sink.cycles(), sink.points(), d.decisions.size());
    return 0;
}

}  // namespace zlog
