#include <cstdio>

#include "verbs.hpp"

namespace zlog {

int verb_picture(const Words &) {
    std::fputs("zebusr-log: picture is not built yet\n", stderr);
    return 2;
}

}  // namespace zlog
