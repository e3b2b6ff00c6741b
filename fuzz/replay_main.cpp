// Runs a harness once over every file named on the command line, or in a
// folder named there: the corpus replay of builds without libFuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void collect(const std::string &path, std::vector<std::string> *files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        exit(1);
    }
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    DIR *dir = opendir(path.c_str());
    std::vector<std::string> names;
    while (dirent *e = readdir(dir))
        if (e->d_name[0] != '.')
            names.push_back(path + "/" + e->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names) collect(n, files);
}

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) collect(argv[i], &files);
    if (files.empty()) {
        fprintf(stderr, "replay: no inputs\n");
        return 1;
    }
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return 0;
}
