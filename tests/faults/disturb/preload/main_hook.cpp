#include "tests/faults/disturb/preload/main_hook.h"

#include <dlfcn.h>

namespace {

using Main = int (*)(int, char**, char**);
using StartMain = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);

Main programMain = nullptr;

int hookedMain(int argc, char** argv, char** environment) {
    corvo::faults::beforeMain();
    return programMain(argc, argv, environment);
}

}  // namespace

// In front of the C library's function of this name, to which the program's first instructions hand
// main().
extern "C" __attribute__((visibility("default"))) int __libc_start_main(Main main, int argc,
                                                                        char** argv, void (*init)(),
                                                                        void (*fini)(),
                                                                        void (*loaderFini)(),
                                                                        void* stackEnd) {
    programMain = main;
    const auto real = reinterpret_cast<StartMain>(::dlsym(RTLD_NEXT, "__libc_start_main"));
    return real(hookedMain, argc, argv, init, fini, loaderFini, stackEnd);
}
