#include <cstdio>

#include "verbs.hpp"

namespace zlog {

int verb_explain(const Words &) {
    std::fputs("zebusr-log: explain is not built yet\n", stderr);
    return 2;
}

}  // namespace zlog
