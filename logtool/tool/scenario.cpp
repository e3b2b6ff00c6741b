#include <cstdio>

#include "verbs.hpp"

namespace zlog {

int verb_scenario(const Words &) {
    std::fputs("zebusr-log: scenario is not built yet\n", stderr);
    return 2;
}

}  // namespace zlog
