#include "core/lifecycle.h"

int main(int argc, char **argv) {
    return zebusr_run(argc, argv);
}
