// Helper program of the process tests.
//   platform_test_child sleep <seconds>
//   platform_test_child report <file> [args...]   writes cwd, time scale and args, one a line
//   platform_test_child echo <out> <err>          <out> and a line end on standard output, then
//                                                 <err> without line end on standard error
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Platform.h"

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "sleep") == 0) {
        ::sleep(static_cast<unsigned>(std::atoi(argv[2])));
        return 0;
    }
    if (argc >= 3 && std::strcmp(argv[1], "report") == 0) {
        std::FILE* f = std::fopen(argv[2], "w");
        if (f == nullptr) {
            return 2;
        }
        char cwd[PATH_MAX];
        std::fprintf(f, "%s\n", ::getcwd(cwd, sizeof cwd) != nullptr ? cwd : "");
        std::fprintf(f, "%.17g\n", platform::timeScale());
        for (int i = 3; i < argc; ++i) {
            std::fprintf(f, "%s\n", argv[i]);
        }
        std::fclose(f);
        return 0;
    }
    if (argc == 4 && std::strcmp(argv[1], "echo") == 0) {
        std::printf("%s\n", argv[2]);
        std::fflush(stdout);
        std::fprintf(stderr, "%s", argv[3]);
        return 0;
    }
    return 1;
}
